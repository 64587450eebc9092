#pragma once

#include <pthread.h>

namespace zelo {

/// Holds a mutex for as long as it lives.
class MutexLock {
 public:
  explicit MutexLock(pthread_mutex_t& mutex) noexcept : held(mutex) { pthread_mutex_lock(&held); }
  MutexLock(const MutexLock&) = delete;
  MutexLock& operator=(const MutexLock&) = delete;
  ~MutexLock() { pthread_mutex_unlock(&held); }

 private:
  pthread_mutex_t& held;
};

}  // namespace zelo
