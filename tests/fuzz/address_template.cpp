// Any template gives an address that is not too long, or is refused for a '%' in it.
#include <cstdlib>
#include <stdexcept>
#include <string>

#include "download/address_template.h"

extern "C" int LLVMFuzzerTestOneInput(const char* data, std::size_t size) {
  const std::string text(data, size);
  try {
    if (zelo::expandAddressTemplate(text, "1", "package%20name").size() > zelo::maxMetadataUrlLength)
      std::abort();
  } catch (const std::runtime_error&) {
    if (text.find('%') == std::string::npos) std::abort();
  }
  return 0;
}
