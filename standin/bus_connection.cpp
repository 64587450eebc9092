#include "standin/bus_connection.h"

namespace kbus {

Owned<GDBusConnection> connect(GCancellable* cancellable, GError** error) {
  constexpr auto flags = static_cast<GDBusConnectionFlags>(G_DBUS_CONNECTION_FLAGS_AUTHENTICATION_CLIENT |
                                                           G_DBUS_CONNECTION_FLAGS_MESSAGE_BUS_CONNECTION);
  return Owned<GDBusConnection>(
      g_dbus_connection_new_for_address_sync("unix:path=/run/kbus.sock", flags, nullptr, cancellable, error));
}

bool claimName(GDBusConnection* bus, const char* name, GBusNameOwnerFlags flags, GError** error) {
  constexpr guint32 primaryOwner = 1;
  g_autoptr(GVariant) reply = g_dbus_connection_call_sync(
      bus, "org.freedesktop.DBus", "/org/freedesktop/DBus", "org.freedesktop.DBus", "RequestName",
      g_variant_new("(su)", name, flags), G_VARIANT_TYPE("(u)"), G_DBUS_CALL_FLAGS_NONE,
      callTimeoutMilliseconds, nullptr, error);
  if (reply == nullptr) return false;
  guint32 outcome = 0;
  g_variant_get(reply, "(u)", &outcome);
  if (outcome == primaryOwner) return true;
  g_set_error(error, G_IO_ERROR, G_IO_ERROR_EXISTS, "the name %s is taken", name);
  return false;
}

}  // namespace kbus
