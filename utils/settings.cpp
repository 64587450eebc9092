#include "utils/settings.h"

#include <stdexcept>

#include "platform/prefbox.h"
#include "utils/log.h"
#include "utils/malloc_text.h"

namespace zelo {

std::string getConfigValue(const std::string& key) {
  char* text = nullptr;
  const int result = getPrefboxValue(key.c_str(), &text);
  const MallocText value(text);
  if (result != 0 || !value) throw std::runtime_error("key does not exist");
  return value.get();
}

std::string getConfigValue(const std::string& key, const std::string& defaultValue) {
  try {
    return getConfigValue(key);
  } catch (const std::runtime_error&) {
    logWarning("W def:zeloinstall:zeloutils:%s key does not exist in prefbox", key.c_str());
    return defaultValue;
  }
}

int getDownloadRetries() {
  return std::stoi(getConfigValue(DOWNLOAD_RETRIES_KEY, DOWNLOAD_RETRIES_DEFAULT));
}

int getDownloadTimeoutSeconds() {
  return std::stoi(getConfigValue(DOWNLOAD_TIMEOUT_KEY, DOWNLOAD_TIMEOUT_DEFAULT));
}

}  // namespace zelo
