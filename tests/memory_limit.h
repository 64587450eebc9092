#pragma once

#include <sys/resource.h>

/// Limits the memory of this process; false where that has no effect: under an emulator of another
/// architecture, or with a sanitizer, which needs more than any limit leaves.
inline bool limitMemory(rlim_t mebibytes) {
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
  (void)mebibytes;
  return false;
#else
  const rlimit limit{mebibytes << 20, mebibytes << 20};
  rlimit after{};
  return setrlimit(RLIMIT_AS, &limit) == 0 && getrlimit(RLIMIT_AS, &after) == 0 &&
         after.rlim_cur == limit.rlim_cur;
#endif
}
