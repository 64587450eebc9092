#pragma once

namespace zelo {

/// From here on an exception that nothing catches, in whatever thread, ends the process with status 1:
/// one error line, unless it is an `AnotherInstance`, no abort, no core. A library's abort ends it with
/// status 1, too, until the crash-dump handlers are installed.
void endOnUncaughtExceptions() noexcept;

/// From here on the process has `logPatienceSeconds` to end with status 1 by itself, before it is ended: for
/// who has a last line to write, to a log receiver that may have stopped reading.
void endWithinLogPatience() noexcept;

}  // namespace zelo
