#pragma once

namespace zelo {

/// How long a log receiver that has stopped reading may keep the process from ending.
inline constexpr int logPatienceSeconds = 2;

/// Each writes one line to syslog, formatted like printf, if its level is on in `g_qorvex_log_mask`. A line
/// of more than 32 KiB loses its middle. Not for signal handlers.
[[gnu::format(printf, 1, 2)]] void logInfo(const char* format, ...);
[[gnu::format(printf, 1, 2)]] void logWarning(const char* format, ...);
[[gnu::format(printf, 1, 2)]] void logError(const char* format, ...);

/// For a process that is about to end with status 1 and has one more line to write: if the log receiver has
/// stopped reading, the process ends with that status after `logPatienceSeconds`.
void endWithinLogPatience() noexcept;

}  // namespace zelo
