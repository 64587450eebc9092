#pragma once

#include <string>

/// What the daemon knows about the device that it runs on. Each call asks the platform afresh.
namespace zelo {

/// Whatever exists under this path marks a device with debugging features.
inline constexpr const char* DEBUG_FEATURES_MARKER = "/PRE_GM_DEBUGGING_FEATURES_ENABLED__REMOVE_AT_GMC";

/// Decimal text. Throws `std::runtime_error` "could not get software version".
[[nodiscard]] std::string getSoftwareVersionText();

/// Throws `std::runtime_error` "could not get software package name".
[[nodiscard]] std::string getSoftwarePackageNameText();

/// True when the marker exists as anything at all: a directory, an empty file. Its content does not count.
[[nodiscard]] bool debugFeaturesEnabled();

}  // namespace zelo
