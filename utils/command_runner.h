#pragma once

#include <string>
#include <vector>

namespace zelo {

/// Runs a program: without a shell or search path, with an empty environment, the daemon's standard input and
/// error, and no other descriptors. Element 0 is the program's path and its argv[0], the rest are its
/// arguments. Blocks until every process has closed the program's standard output and the program is reaped.
///
/// Returns what the program wrote to standard output, byte for byte. Throws `std::runtime_error` "unable to
/// create pipes for reading stdout", "unable to fork" or, if the program cannot be started or exits with a
/// status other than 0, "failed to execute command". A program killed by a signal counts as success.
///
/// Once a termination signal has arrived, it starts nothing and does not return.
[[nodiscard]] std::string runCommand(std::vector<std::string> arguments);

/// The same for a null-terminated array.
[[nodiscard]] std::string runProcess(char* const arguments[]);

}  // namespace zelo
