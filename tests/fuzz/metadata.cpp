// The way of a downloaded document: parse it, take the two members, judge the address.
#include <cstdint>
#include <cstdlib>
#include <stdexcept>
#include <string>

#include "download/address_policy.h"
#include "utils/json_wrapper.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string text(reinterpret_cast<const char*>(data), size);
  try {
    const zelo::JSONWrapper document(text);
    const std::string url = document.getString("url");
    (void)document.getString("signature");
    (void)isAddressNotAllowed(url);
    (void)document.toString();
  } catch (const std::runtime_error& error) {
    const std::string what = error.what();
    const bool documented = what == std::string(("invalid json " + text).c_str()) ||
                            what == "key url not found" || what == "key signature not found";
    if (!documented) std::abort();
  }
  return 0;
}
