// Any template: no read beyond the two values, nothing thrown but the refusal, never too long.
#include <cstdint>
#include <cstdlib>
#include <stdexcept>
#include <string>

#include "download/address_template.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string text(reinterpret_cast<const char*>(data), size);
  try {
    const std::string address = zelo::expandAddressTemplate(text, "1", "package%20name");
    if (address.size() > zelo::maxMetadataUrlLength) std::abort();
  } catch (const std::runtime_error& error) {
    if (std::string("invalid metadata url template") != error.what()) std::abort();
    if (text.find('%') == std::string::npos) std::abort();
  }
  return 0;
}
