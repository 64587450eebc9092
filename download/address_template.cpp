#include "download/address_template.h"

#include <algorithm>
#include <iterator>
#include <stdexcept>

namespace zelo {

std::string expandAddressTemplate(const std::string& addressTemplate, const std::string& version,
                                  const std::string& packageName) {
  const std::string* const values[] = {&version, &packageName};
  std::size_t used = 0;
  std::string address;
  for (std::size_t i = 0; i < addressTemplate.size(); ++i) {
    if (addressTemplate[i] != '%') {
      address += addressTemplate[i];
      continue;
    }
    const char conversion = addressTemplate[++i];  // at the end, the null
    if (conversion == '%') {
      address += '%';
    } else if (conversion == 's' && used < std::size(values)) {
      address += *values[used++];
    } else {
      throw std::runtime_error("invalid metadata url template");
    }
  }
  address.resize(std::min(address.size(), maxMetadataUrlLength));
  return address;
}

}  // namespace zelo
