#pragma once

namespace zelo {

/// Each writes one line to syslog when its level is on in `g_qorvex_log_mask`, formatted as printf
/// does. Not for signal handlers.
[[gnu::format(printf, 1, 2)]] void logInfo(const char* format, ...);
[[gnu::format(printf, 1, 2)]] void logWarning(const char* format, ...);
[[gnu::format(printf, 1, 2)]] void logError(const char* format, ...);

}  // namespace zelo
