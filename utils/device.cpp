#include "utils/device.h"

#include <unistd.h>

#include <cstdint>
#include <stdexcept>

#include "platform/device_info.h"
#include "utils/malloc_text.h"

namespace zelo {

std::string getSoftwareVersionText() {
  std::int64_t version = 0;
  if (getSoftwareVersion(&version) != 0) throw std::runtime_error("could not get software version");
  return std::to_string(version);
}

std::string getSoftwarePackageNameText() {
  char* text = nullptr;
  const int result = getSoftwarePackageName(&text);
  const MallocText name(text);
  if (result != 0 || !name) throw std::runtime_error("could not get software package name");
  return name.get();
}

bool debugFeaturesEnabled() {
  return access(DEBUG_FEATURES_MARKER, F_OK) == 0;
}

}  // namespace zelo
