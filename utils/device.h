#pragma once

#include <string>

/// Facts about the device. Each call asks the platform.
namespace zelo {

/// Anything at this path marks a device with debugging features.
inline constexpr const char* DEBUG_FEATURES_MARKER = "/PRE_GM_DEBUGGING_FEATURES_ENABLED__REMOVE_AT_GMC";

/// Decimal text. Throws `std::runtime_error` "could not get software version".
[[nodiscard]] std::string getSoftwareVersionText();

/// Throws `std::runtime_error` "could not get software package name".
[[nodiscard]] std::string getSoftwarePackageNameText();

/// True if the marker exists, even as a directory or an empty file.
[[nodiscard]] bool debugFeaturesEnabled();

}  // namespace zelo
