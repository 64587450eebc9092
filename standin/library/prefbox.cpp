#include "platform/prefbox.h"

#include <sys/stat.h>

#include <cstdio>
#include <cstring>
#include <memory>
#include <string>

// The store is a directory with a file for each key.
int getPrefboxValue(const char* key, char** value) try {
  if (key[0] == '\0' || std::strchr(key, '/') != nullptr) return -1;
  const std::string path = std::string("/var/lib/prefbox/") + key;
  struct stat status = {};
  if (stat(path.c_str(), &status) != 0 || !S_ISREG(status.st_mode)) return -1;
  const std::unique_ptr<std::FILE, int (*)(std::FILE*)> file(std::fopen(path.c_str(), "re"), std::fclose);
  if (!file) return -1;

  std::string text(static_cast<std::size_t>(status.st_size), '\0');
  if (std::fread(text.data(), 1, text.size(), file.get()) != text.size()) return -1;
  if (!text.empty() && text.back() == '\n') text.pop_back();
  *value = strdup(text.c_str());
  return *value == nullptr ? -1 : 0;
} catch (const std::exception&) {
  return -1;
}
