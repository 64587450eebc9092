#include "standin/bus_connection.h"

#include <algorithm>

namespace kbus {
namespace {

constexpr const char* address = "unix:path=/run/kbus.sock";
constexpr guint32 allowReplacement = 1;
constexpr guint32 replaceExisting = 2;
constexpr guint32 doNotQueue = 4;
constexpr guint32 primaryOwner = 1;

}  // namespace

Connection connect(GCancellable* cancellable, Error& error) {
  GError* failure = nullptr;
  constexpr auto flags = static_cast<GDBusConnectionFlags>(G_DBUS_CONNECTION_FLAGS_AUTHENTICATION_CLIENT |
                                                           G_DBUS_CONNECTION_FLAGS_MESSAGE_BUS_CONNECTION);
  Connection connection(
      g_dbus_connection_new_for_address_sync(address, flags, nullptr, cancellable, &failure));
  error.reset(failure);
  return connection;
}

bool claimName(GDBusConnection* connection, const char* name, Sharing sharing, Error& error) {
  const guint32 flags = sharing == Sharing::none ? doNotQueue : allowReplacement | replaceExisting;
  GError* failure = nullptr;
  const Variant reply(g_dbus_connection_call_sync(
      connection, "org.freedesktop.DBus", "/org/freedesktop/DBus", "org.freedesktop.DBus", "RequestName",
      g_variant_new("(su)", name, flags), G_VARIANT_TYPE("(u)"), G_DBUS_CALL_FLAGS_NONE,
      callTimeoutMilliseconds, nullptr, &failure));
  error.reset(failure);
  guint32 outcome = 0;
  if (reply) g_variant_get(reply.get(), "(u)", &outcome);
  return outcome == primaryOwner;
}

std::string objectPath(const std::string& dottedName) {
  std::string path = "/" + dottedName;
  std::replace(path.begin(), path.end(), '.', '/');
  return path;
}

}  // namespace kbus
