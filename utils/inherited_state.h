#pragma once

namespace zelo {

/// Repairs the part of the inherited state that the daemon cannot work with, before the platform's libraries
/// make choices of their own. Closed standard descriptors are opened on /dev/null, or the bus's socket would
/// become standard output. Blocked signals are unblocked. SIGPIPE and SIGXFSZ get a handler that does
/// nothing: a failed write must not end the daemon. Everything else is as the starter set it: environment,
/// timers, limits and ignored signals. Throws `std::runtime_error` when /dev/null cannot be opened.
void repairInheritedState();

}  // namespace zelo
