#pragma once

#include <cstdint>

/// Helpers for all daemons of the device.

extern "C" {

/// Which log lines are written: bit 23 information, bit 24 warnings, bit 25 errors. The platform sets the
/// initial value, then the daemon its own.
extern std::uint32_t g_qorvex_log_mask;

/// Takes the lock of the pid file. Returns a handle (0 or greater), or a negative value if another instance
/// holds the lock.
int qorvex_daemon_checksingleton(const char* pidFile);

/// Releases the lock of `handle`; nothing if it is negative. Returns 0 if the lock was released.
int qorvex_daemon_cleansingleton(const char* pidFile, int handle);

}  // extern "C"
