#pragma once

/// The device's message bus.

extern "C" {

struct KbusHandleStruct;

/// Connects to the bus and claims `serviceName`. Writes 0 to `*resultCode` on success, anything else
/// on failure. The handle belongs to the caller, who closes it with `KbusClose`; a failed open gives
/// no handle.
KbusHandleStruct* KbusOpenEx(const char* serviceName, int* resultCode);

/// Gives the name back and closes the connection. 0 on success.
int KbusClose(KbusHandleStruct* handle);

}  // extern "C"
