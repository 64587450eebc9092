#include "utils/termination.h"

#include <pthread.h>
#include <unistd.h>

#include <atomic>

#include "utils/mutex_lock.h"

namespace zelo {
namespace {

enum class Activity { acts, startsProgram, waitsForProgram, waits };

std::atomic<int> g_termination_signal{0};
static_assert(std::atomic<int>::is_always_lock_free, "a signal handler sets it");

// pthread's types, because they have no destructor: a thread may still wait on them while the process exits.
pthread_mutex_t g_activity_mutex = PTHREAD_MUTEX_INITIALIZER;
pthread_cond_t g_activity_changed = PTHREAD_COND_INITIALIZER;
Activity g_activity = Activity::acts;

// False once a termination signal has been noted; the main thread then counts as waiting.
[[nodiscard]] bool become(Activity next) noexcept {
  const MutexLock lock(g_activity_mutex);
  const bool goesOn = terminationSignal() == 0;
  g_activity = goesOn ? next : Activity::waits;
  pthread_cond_broadcast(&g_activity_changed);
  return goesOn;
}

[[noreturn]] void parkForever() noexcept {
  (void)become(Activity::waits);
  for (;;) pause();
}

}  // namespace

bool noteTerminationSignal(int signum) noexcept {
  int none = 0;
  return g_termination_signal.compare_exchange_strong(none, signum);
}

int terminationSignal() noexcept {
  return g_termination_signal.load();
}

void passGate() noexcept {
  if (terminationSignal() != 0) parkForever();
}

Wait::Wait(For what) noexcept {
  if (!become(what == program ? Activity::startsProgram : Activity::waits)) parkForever();
}

Wait::~Wait() {
  if (!become(Activity::acts)) parkForever();
}

void Wait::programRuns() noexcept {
  const MutexLock lock(g_activity_mutex);
  g_activity = Activity::waitsForProgram;
  pthread_cond_broadcast(&g_activity_changed);
}

void awaitIdleMainThread(const timespec& deadline) noexcept {
  const MutexLock lock(g_activity_mutex);
  int result = 0;
  while ((g_activity == Activity::acts || g_activity == Activity::startsProgram) && result == 0)
    result = pthread_cond_clockwait(&g_activity_changed, &g_activity_mutex, CLOCK_MONOTONIC, &deadline);
}

void awaitNoProgram() noexcept {
  const MutexLock lock(g_activity_mutex);
  while (g_activity == Activity::startsProgram || g_activity == Activity::waitsForProgram)
    pthread_cond_wait(&g_activity_changed, &g_activity_mutex);
}

}  // namespace zelo
