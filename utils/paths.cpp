#include "utils/paths.h"

#include <stdexcept>

namespace zelo {

std::string getParentDirectory(const std::string& path) {
  if (path.empty()) throw std::runtime_error("empty path");
  const std::size_t slash = path.rfind('/');
  if (slash == std::string::npos || slash == path.size() - 1) return path;
  return path.substr(0, slash);
}

std::string getFileName(const std::string& path) {
  if (path.empty()) throw std::runtime_error("invalid path");
  const std::size_t slash = path.rfind('/');
  if (slash == path.size() - 1) throw std::runtime_error("path ends with a /");
  return path.substr(slash + 1);  // the whole path where there is no slash
}

std::string joinPath(const std::string& directory, const std::string& name) {
  if (directory.empty() || directory.back() == '/') return directory + name;
  return directory + "/" + name;
}

}  // namespace zelo
