#include "platform/prefbox.h"

#include <cstring>
#include <exception>
#include <fstream>
#include <string>

// The store is a directory with a file for each key; the value is its first line.
int getPrefboxValue(const char* key, char** value) try {
  std::ifstream file(std::string("/var/lib/prefbox/") + key);
  std::string text;
  std::getline(file, text);
  if (!file.is_open() || file.bad()) return -1;
  *value = strdup(text.c_str());
  return *value == nullptr ? -1 : 0;
} catch (const std::exception&) {
  return -1;
}
