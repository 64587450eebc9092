#include "standin/bus_connection.h"

#include <unistd.h>

#include <algorithm>
#include <csignal>
#include <cstdio>
#include <cstdlib>

namespace kbus {
namespace {

constexpr const char* address = "unix:path=/run/kbus.sock";
constexpr guint32 allowReplacement = 1;
constexpr guint32 replaceExisting = 2;
constexpr guint32 doNotQueue = 4;
constexpr guint32 primaryOwner = 1;
constexpr int callTimeoutMilliseconds = 10000;

// GIO ignores SIGPIPE for the whole process, and programs started later would inherit that.
class KeepSigpipe {
 public:
  KeepSigpipe() { sigaction(SIGPIPE, nullptr, &before_); }
  KeepSigpipe(const KeepSigpipe&) = delete;
  KeepSigpipe& operator=(const KeepSigpipe&) = delete;
  ~KeepSigpipe() { sigaction(SIGPIPE, &before_, nullptr); }

 private:
  struct sigaction before_ {};
};

}  // namespace

Connection connect(Error& error) {
  const KeepSigpipe keep;
  GError* failure = nullptr;
  constexpr auto flags = static_cast<GDBusConnectionFlags>(G_DBUS_CONNECTION_FLAGS_AUTHENTICATION_CLIENT |
                                                           G_DBUS_CONNECTION_FLAGS_MESSAGE_BUS_CONNECTION);
  Connection connection(g_dbus_connection_new_for_address_sync(address, flags, nullptr, nullptr, &failure));
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

// A question whose answer follows what was sent; GIO's own flushing needs a thread more, and waits for
// ever when it cannot have one.
bool arrived(GDBusConnection* connection, Error& error) {
  GError* failure = nullptr;
  const Variant reply(g_dbus_connection_call_sync(
      connection, "org.freedesktop.DBus", "/org/freedesktop/DBus", "org.freedesktop.DBus", "GetId", nullptr,
      G_VARIANT_TYPE("(s)"), G_DBUS_CALL_FLAGS_NONE, callTimeoutMilliseconds, nullptr, &failure));
  error.reset(failure);
  return reply != nullptr;
}

void endWithStatusOneOnFatalErrors() {
  g_log_set_default_handler(
      [](const gchar* domain, GLogLevelFlags level, const gchar* message, gpointer unused) {
        if ((level & (G_LOG_FLAG_FATAL | G_LOG_LEVEL_ERROR)) != 0) {
          (void)std::fprintf(stderr, "%s\n", message != nullptr ? message : "GLib gives up");
          _exit(EXIT_FAILURE);
        }
        g_log_default_handler(domain, level, message, unused);
      },
      nullptr);
}

std::string objectPath(const std::string& dottedName) {
  std::string path = "/" + dottedName;
  std::replace(path.begin(), path.end(), '.', '/');
  return path;
}

}  // namespace kbus
