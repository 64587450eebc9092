#pragma once

namespace zelo {

/// From here on an exception that nothing catches, in whatever thread, ends the process with status 1:
/// one error line, no abort, no core. So does a library that gives up for want of resources, as long as
/// no crash dump is there to be written.
void endOnUncaughtExceptions() noexcept;

}  // namespace zelo
