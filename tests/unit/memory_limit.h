#pragma once

#include <sys/resource.h>

/// Limits the memory of this process.
inline void limitMemory(rlim_t mebibytes) {
  rlimit limit{};
  getrlimit(RLIMIT_AS, &limit);
  limit.rlim_cur = mebibytes << 20;
  setrlimit(RLIMIT_AS, &limit);
}

/// False under an emulator of another architecture, which takes a limit and does nothing with it, and
/// with a sanitizer, which needs more than any limit leaves.
inline bool memoryCanBeLimited() {
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
  return false;
#else
  rlimit before{};
  getrlimit(RLIMIT_AS, &before);
  limitMemory(2048);
  rlimit after{};
  getrlimit(RLIMIT_AS, &after);
  setrlimit(RLIMIT_AS, &before);
  return after.rlim_cur == rlim_t{2048} << 20;
#endif
}
