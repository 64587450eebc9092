#pragma once

#include <cstdint>

/// The device's software.

extern "C" {

/// Fills `*version`. 0 on success.
int getSoftwareVersion(std::int64_t* version);

/// Stores a newly allocated text in `*name`, which the caller has set to null and releases with
/// `free`, also after a failure. 0 on success.
int getSoftwarePackageName(char** name);

}  // extern "C"
