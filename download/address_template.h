#pragma once

#include <string>

namespace zelo {

/// The longest request address; the rest is cut off.
inline constexpr std::size_t maxMetadataUrlLength = 199;

/// Replaces the first "%s" of the template by `version`, the second by `packageName`, and "%%" by '%'.
/// Throws `std::runtime_error` "invalid metadata url template" for any other '%' and for a third "%s".
[[nodiscard]] std::string expandAddressTemplate(const std::string& addressTemplate,
                                                const std::string& version, const std::string& packageName);

}  // namespace zelo
