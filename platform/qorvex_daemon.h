#pragma once

#include <cstdint>

/// Helpers that every daemon of the device shares.

extern "C" {

/// Which log lines are written: bit 23 information, bit 24 warnings, bit 25 errors. Holds the
/// platform's own initial value until the daemon assigns it.
extern std::uint32_t g_qorvex_log_mask;

/// Takes the lock of the pid file. The handle of the lock, 0 or greater, or a negative value when
/// another instance holds it.
int qorvex_daemon_checksingleton(const char* pidFile);

/// Releases the lock that `handle` stands for; a negative handle releases nothing. 0 when it was released.
int qorvex_daemon_cleansingleton(const char* pidFile, int handle);

}  // extern "C"
