#pragma once

#include "standin/bus_connection.h"

namespace kbus {

/// Connects to the bus. As in `serve`, what fails ends the program.
[[nodiscard]] Owned<GDBusConnection> connectService();

/// Offers the one object of a service, whose path is "/", and claims the name of its interface. Works until
/// the bus is gone.
[[noreturn]] void serve(GDBusConnection* bus, const char* description, const GDBusInterfaceVTable& operations,
                        gpointer data);

}  // namespace kbus
