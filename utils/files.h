#pragma once

#include <cstdint>
#include <string>

/// The daemon's working files. Nothing that these create is ever removed.
namespace zelo {

/// The longest pause that `sleepSeconds` can count.
inline constexpr std::uint32_t maxSleepSeconds = 4294;

/// Makes a new, empty directory /tmp/zeloinstall.XXXXXX that only its owner can enter, and returns its
/// path. Throws `std::runtime_error` "unable to create temp directory. errno " and the number.
[[nodiscard]] std::string createTempDirectory();

/// Makes a directory that only its owner can enter. Something that exists under that name already is no
/// failure. Throws `std::runtime_error` "unable to create directory ", the path, " errno " and the
/// number.
void makeDirectory(const std::string& path);

/// The whole content of a regular file; empty for anything else and for whatever cannot be read.
[[nodiscard]] std::string readFile(const std::string& path) noexcept;

/// Creates the file or replaces its content. A failure goes unreported: whoever uses the file notices.
void writeFile(const std::string& path, const std::string& content) noexcept;

/// Moves a file into a directory, which is made when it is missing, and returns the file's new path.
/// Throws what `makeDirectory`, `getFileName` and `runCommand` throw; the source then stays.
std::string moveFile(const std::string& source, const std::string& directory);

/// Suspends the main thread for the whole time, whatever signals arrive; does not return once a termination
/// signal has. At most `maxSleepSeconds`.
void sleepSeconds(std::uint32_t seconds);

}  // namespace zelo
