#pragma once

namespace zelo {

/// Puts right what whoever started the process may have left: standard descriptors that are closed are
/// opened on /dev/null, ignored signals are ignored no more, blocked ones are unblocked. Throws
/// `std::runtime_error` when /dev/null cannot be opened.
void repairInheritedState();

/// Programs inherit ignored signals, so none stays ignored: each gets its default, and SIGPIPE and
/// SIGXFSZ, by which a failed write must not end the daemon, a handler that does nothing.
void stopIgnoringSignals() noexcept;

/// Marks every open descriptor from `first` on close-on-exec, whoever opened it.
void closeOnExecFrom(int first) noexcept;

}  // namespace zelo
