#pragma once

/// The device's configuration store.

extern "C" {

/// Stores a newly allocated copy of the key's value in `*value`, which the caller has set to null and
/// releases with `free`, also after a failure. 0 on success.
int getPrefboxValue(const char* key, char** value);

}  // extern "C"
