#include "platform/device_info.h"

#include <charconv>
#include <cstring>
#include <fstream>
#include <string>

namespace {

// The text after KEY= in the device's file; "" if there is none.
std::string infoValue(const std::string& key) {
  std::ifstream file("/etc/device-info");
  for (std::string line; std::getline(file, line);)
    if (line.rfind(key + "=", 0) == 0) return line.substr(key.size() + 1);
  return {};
}

}  // namespace

int getSoftwareVersion(std::int64_t* version) {
  const std::string text = infoValue("software_version");
  const char* const end = text.data() + text.size();
  const auto [rest, error] = std::from_chars(text.data(), end, *version);
  return error == std::errc() && rest == end ? 0 : -1;
}

int getSoftwarePackageName(char** name) {
  const std::string text = infoValue("software_package_name");
  if (text.empty()) return -1;
  *name = strdup(text.c_str());
  return *name == nullptr ? -1 : 0;
}
