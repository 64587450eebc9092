#pragma once

#include "platform/kbus.h"
#include "standin/bus_connection.h"

/// What `KbusOpenEx` hands out.
struct KbusHandleStruct {
  kbus::Owned<GDBusConnection> bus;
  int clients = 0;  // they go before it is closed
};
