#include "platform/qorvex_daemon.h"

// Warnings and errors, until the daemon says otherwise.
std::uint32_t g_qorvex_log_mask = 0x03000000;
