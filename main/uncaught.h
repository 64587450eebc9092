#pragma once

namespace zelo {

/// From here on an uncaught exception on any thread ends the process with status 1, without abort or core
/// dump. It is logged, unless it is an `AnotherInstance`. A library that aborts during the start, for lack of
/// some resource, ends the process with status 1 too.
void endOnUncaughtExceptions() noexcept;

/// From here on an abort is a crash again. Call it just before the crash-dump handlers are installed, which
/// must find the default action.
void makeAbortsCrash() noexcept;

}  // namespace zelo
