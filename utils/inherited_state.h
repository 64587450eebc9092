#pragma once

namespace zelo {

/// Repairs what the daemon cannot work with, before the platform's libraries are opened. Closed standard
/// descriptors are opened on /dev/null; otherwise the bus's socket would become standard output. Blocked
/// signals are unblocked. SIGPIPE and SIGXFSZ get a handler that does nothing in place of their default,
/// because a failed write must not end the daemon.
///
/// Environment, timers, limits and ignored signals stay as the starter set them. Later exceptions are the
/// four termination signals, which get their handler, and SIGCHLD, which the command runner needs.
///
/// Throws `std::runtime_error` if /dev/null cannot be opened.
void repairInheritedState();

}  // namespace zelo
