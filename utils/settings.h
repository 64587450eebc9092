#pragma once

#include <string>

/// The daemon's settings, kept in the device's configuration store and read afresh by each call.
namespace zelo {

inline constexpr const char* METADATA_URL_KEY = "url.zelo.installer.metadata";
inline constexpr const char* DOWNLOAD_RETRIES_KEY = "zelo.installer.download.retries";
inline constexpr const char* DOWNLOAD_RETRIES_DEFAULT = "10";
inline constexpr const char* DOWNLOAD_TIMEOUT_KEY = "zelo.installer.download.timeout.seconds";
inline constexpr const char* DOWNLOAD_TIMEOUT_DEFAULT = "900";

/// Throws `std::runtime_error` "key does not exist" when the store yields no value.
[[nodiscard]] std::string getConfigValue(const std::string& key);

/// The default, with a warning in the log, when the store yields no value.
[[nodiscard]] std::string getConfigValue(const std::string& key, const std::string& defaultValue);

/// How many times a failed download is repeated. A stored text that is no number throws
/// `std::invalid_argument`, one out of range `std::out_of_range`.
[[nodiscard]] int getDownloadRetries();

/// Time limit of one download in seconds. Throws as `getDownloadRetries` does.
[[nodiscard]] int getDownloadTimeoutSeconds();

}  // namespace zelo
