#pragma once

/// The device's crash dumps.

extern "C" {

/// Installs handlers that record where a fatal signal occurred, and then let it end the process.
void ctrap_register_signal_handlers();

}  // extern "C"
