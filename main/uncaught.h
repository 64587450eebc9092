#pragma once

namespace zelo {

/// From here on an exception that nothing catches, in whatever thread, ends the process with status 1: one
/// error line, unless it is an `AnotherInstance`, no abort, no core. A library that aborts during the start,
/// because it lacks a resource, ends the process with status 1 too.
void endOnUncaughtExceptions() noexcept;

/// From here on an abort is a crash again. To be called just before the crash-dump handlers are installed:
/// they must find the default action.
void makeAbortsCrash() noexcept;

}  // namespace zelo
