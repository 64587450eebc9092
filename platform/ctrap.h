#pragma once

/// The device's crash dumps.

extern "C" {

/// Installs the handlers that record where a fatal signal struck before the process ends by it.
void ctrap_register_signal_handlers();

}  // extern "C"
