#include "download/retry.h"

#include <algorithm>
#include <cstdint>

#include "utils/files.h"
#include "utils/settings.h"

namespace zelo {

DownloadLimits readDownloadLimits() {
  const int retries = getDownloadRetries();
  return {retries, getDownloadTimeoutSeconds()};
}

void pauseBeforeAttempt(int attempt) {
  sleepSeconds(std::min(static_cast<std::uint32_t>(attempt), maxSleepSeconds));
}

}  // namespace zelo
