#pragma once

#include <cstdint>
#include <string>

/// The daemon's files. Nothing that these functions create is ever removed.
namespace zelo {

/// The longest pause that `sleepSeconds` can make.
inline constexpr std::uint32_t maxSleepSeconds = 4294;

/// Makes a new, empty directory /tmp/zeloinstall.XXXXXX that only its owner can enter, and returns its
/// path. Throws `std::runtime_error` "unable to create temp directory. errno " and the number.
[[nodiscard]] std::string createTempDirectory();

/// Makes a directory that only its owner can enter, unless something has that name already. Throws
/// `std::runtime_error` "unable to create directory ", the path, " errno " and the number.
void makeDirectory(const std::string& path);

/// The whole content of a regular file; empty if it is not one or cannot be read.
[[nodiscard]] std::string readFile(const std::string& path) noexcept;

/// Creates the file or replaces its content. Failures are not reported; the next reader notices.
void writeFile(const std::string& path, const std::string& content) noexcept;

/// Moves a file into a directory, which is made if missing, and returns the file's new path. Throws what
/// `makeDirectory`, `getFileName` and `runCommand` throw; then the source stays.
std::string moveFile(const std::string& source, const std::string& directory);

/// Pauses the main thread for the whole time, even if signals arrive; does not return after a termination
/// signal. At most `maxSleepSeconds`.
void sleepSeconds(std::uint32_t seconds);

}  // namespace zelo
