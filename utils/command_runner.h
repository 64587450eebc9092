#pragma once

#include <string>
#include <vector>

namespace zelo {

/// Starts a program and waits until it has ended: no shell, no search path, an empty environment, the
/// daemon's standard input and error, no other descriptor. Element 0 is the program's path and its
/// argv[0], the rest are its arguments. Blocks until every holder of the program's standard output has
/// closed it and the program has been reaped.
///
/// Returns everything the program wrote to its standard output, byte for byte; a program that is
/// ended by a signal counts as a success. Throws `std::runtime_error`: "unable to create pipes for
/// reading stdout", "unable to fork", or "failed to execute command" when the program cannot be
/// started or exits with a status other than 0.
///
/// Starts nothing and does not return once a termination signal has arrived.
[[nodiscard]] std::string runCommand(std::vector<std::string> arguments);

/// The layer beneath: the same for a null-terminated array of texts.
[[nodiscard]] std::string runProcess(char* const arguments[]);

}  // namespace zelo
