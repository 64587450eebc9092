#include "platform/prefbox.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstring>
#include <string>

#include "utils/file_descriptor.h"

namespace {

constexpr const char* store = "/var/lib/prefbox/";
constexpr off_t longestValue = 65536;

}  // namespace

int getPrefboxValue(const char* key, char** value) try {
  if (key[0] == '\0' || std::strchr(key, '/') != nullptr) return -1;
  const std::string path = std::string(store) + key;
  const zelo::FileDescriptor file(open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK));
  struct stat status {};
  if (!file.valid() || fstat(file.get(), &status) != 0 || !S_ISREG(status.st_mode)) return -1;
  if (status.st_size > longestValue) return -1;

  std::string text(static_cast<std::size_t>(status.st_size), '\0');
  if (read(file.get(), text.data(), text.size()) != static_cast<ssize_t>(text.size())) return -1;
  if (!text.empty() && text.back() == '\n') text.pop_back();
  *value = strdup(text.c_str());
  return *value == nullptr ? -1 : 0;
} catch (const std::bad_alloc&) {
  return -1;
}
