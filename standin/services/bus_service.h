#pragma once

#include "standin/bus_connection.h"

namespace kbus {

/// Offers an object, whose path and interface have the service's name, and works until SIGTERM or SIGINT
/// comes or the bus is gone. `prepare` gets the connection before the name is claimed: a client that
/// sees the name is heard. Returns the program's exit status.
[[nodiscard]] int serve(const char* name, const char* description, const GDBusInterfaceVTable& operations,
                        gpointer data, void (*prepare)(GDBusConnection* bus, gpointer data));

}  // namespace kbus
