#pragma once

#include <string>

/// The daemon's settings. Each call reads them from the device's configuration store.
namespace zelo {

inline constexpr const char* METADATA_URL_KEY = "url.zelo.installer.metadata";
inline constexpr const char* DOWNLOAD_RETRIES_KEY = "zelo.installer.download.retries";
inline constexpr const char* DOWNLOAD_RETRIES_DEFAULT = "10";
inline constexpr const char* DOWNLOAD_TIMEOUT_KEY = "zelo.installer.download.timeout.seconds";
inline constexpr const char* DOWNLOAD_TIMEOUT_DEFAULT = "900";

/// Throws `std::runtime_error` "key does not exist" if the store has no value.
[[nodiscard]] std::string getConfigValue(const std::string& key);

/// The stored value or, after a warning in the log, the default.
[[nodiscard]] std::string getConfigValue(const std::string& key, const std::string& defaultValue);

/// How many times a failed download is repeated. Throws `std::invalid_argument` if the stored text is not a
/// number, `std::out_of_range` if it does not fit.
[[nodiscard]] int getDownloadRetries();

/// The time limit of one download attempt in seconds. Throws what `getDownloadRetries` throws.
[[nodiscard]] int getDownloadTimeoutSeconds();

}  // namespace zelo
