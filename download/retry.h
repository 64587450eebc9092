#pragma once

#include <stdexcept>

#include "main/zelo_exception.h"
#include "utils/log.h"

namespace zelo {

/// The settings of a download stage, read once per stage.
struct DownloadLimits {
  int retries;
  int timeoutSeconds;
};

/// Calls `getDownloadRetries`, then `getDownloadTimeoutSeconds`, and throws what they throw.
[[nodiscard]] DownloadLimits readDownloadLimits();

/// Pauses one second for each earlier attempt, at most `maxSleepSeconds`.
void pauseBeforeAttempt(int attempt);

/// Calls `attempt` until it succeeds, at most 1 + `retries` times, and returns its result. Logs every
/// `std::runtime_error`; the last one becomes a `ZeloException` with the download code. Other exceptions pass
/// through at once. If `retries` is negative, throws `std::runtime_error` "illegal state".
template <typename Attempt>
auto withRetries(int retries, const char* subject, Attempt attempt) -> decltype(attempt()) {
  for (int n = 0; n <= retries; ++n) {
    try {
      pauseBeforeAttempt(n);
      return attempt();
    } catch (const std::runtime_error& error) {
      logWarning("W def:zeloinstall:ZeloInstallerBundleMetadata:%s download failed due to %s", subject,
                 error.what());
      if (n == retries) throw ZeloException(ERROR_CODE_DOWNLOAD, error.what());
    }
  }
  throw std::runtime_error("illegal state");
}

}  // namespace zelo
