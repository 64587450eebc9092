// The way of a downloaded document: any text is parsed, or refused with the one type of exception.
#include <stdexcept>
#include <string>

#include "download/address_policy.h"
#include "utils/json_wrapper.h"

extern "C" int LLVMFuzzerTestOneInput(const char* data, std::size_t size) {
  try {
    const zelo::JSONWrapper document(std::string(data, size));
    (void)document.toString();
    (void)isAddressNotAllowed(document.getString("url"));
    (void)document.getString("signature");
  } catch (const std::runtime_error&) {
    return 0;
  }
  return 0;
}
