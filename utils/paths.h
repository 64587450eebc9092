#pragma once

#include <string>

/// Paths are byte strings, handled textually: nothing is normalised or looked up.
namespace zelo {

/// The text before the last '/', or the whole path if it has none or ends with one. Throws
/// `std::runtime_error` "empty path".
[[nodiscard]] std::string getParentDirectory(const std::string& path);

/// The text after the last '/', or the whole path if it has none. Throws `std::runtime_error` "invalid path"
/// for an empty path, "path ends with a /" for one without a name.
[[nodiscard]] std::string getFileName(const std::string& path);

/// Directory and name with one '/' between them; an empty directory adds none.
[[nodiscard]] std::string joinPath(const std::string& directory, const std::string& name);

}  // namespace zelo
