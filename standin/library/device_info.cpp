#include "platform/device_info.h"

#include <glib.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <memory>
#include <sstream>
#include <string>

namespace {

constexpr const char* infoFile = "/etc/device-info";
constexpr const char* group = "device";

using Text = std::unique_ptr<char, decltype(&g_free)>;

Text infoValue(const char* key) {
  const std::unique_ptr<GKeyFile, decltype(&g_key_file_unref)> file(g_key_file_new(), g_key_file_unref);
  // Read here: on 32-bit ARM, GLib cannot open a file that is dated after January 2038.
  std::ostringstream content;
  content << std::ifstream(infoFile).rdbuf();
  const std::string text = content.str();
  if (g_key_file_load_from_data(file.get(), text.data(), text.size(), G_KEY_FILE_NONE, nullptr) == FALSE)
    return {nullptr, g_free};
  return {g_key_file_get_string(file.get(), group, key, nullptr), g_free};
}

}  // namespace

int getSoftwareVersion(std::int64_t* version) {
  const Text text = infoValue("software_version");
  if (!text || text.get()[0] == '\0') return -1;
  char* end = nullptr;
  errno = 0;
  const long long number = std::strtoll(text.get(), &end, 10);
  if (errno != 0 || *end != '\0') return -1;
  *version = number;
  return 0;
}

int getSoftwarePackageName(char** name) {
  const Text text = infoValue("software_package_name");
  if (!text) return -1;
  *name = strdup(text.get());
  return *name == nullptr ? -1 : 0;
}
