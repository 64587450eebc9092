#pragma once

namespace zelo {

/// From here on an exception that nothing catches, in whatever thread, ends the process with status 1:
/// one error line, unless it is an `AnotherInstance`, no abort, no core. So does a library's abort, until
/// the crash-dump handlers are installed.
void endOnUncaughtExceptions() noexcept;

}  // namespace zelo
