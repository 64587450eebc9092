#pragma once

namespace zelo {

/// Puts right what whoever started the process may have left, before the platform's libraries make
/// choices of their own: standard descriptors that are closed are opened on /dev/null; ignored signals,
/// which programs would inherit, get their default; blocked ones are unblocked; running timers are stopped;
/// the environment, from which libraries take time zones and settings, is emptied.
/// SIGPIPE and SIGXFSZ, by which a failed write must not end the daemon, get a handler that does nothing.
/// Throws `std::runtime_error` when /dev/null cannot be opened.
void repairInheritedState();

}  // namespace zelo
