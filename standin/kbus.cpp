#include "platform/kbus.h"

#include <syslog.h>

#include <new>
#include <utility>

#include "standin/bus_connection.h"

namespace {

constexpr int ready = 0;
constexpr int noBus = 1;
constexpr int nameTaken = 2;

}  // namespace

struct KbusHandleStruct {
  kbus::Connection connection;
};

KbusHandleStruct* KbusOpenEx(const char* serviceName, int* resultCode) {
  kbus::endWithStatusOneOnFatalErrors();
  kbus::Error error;
  kbus::Connection connection = kbus::connect(error);
  if (!connection) {
    syslog(LOG_ERR, "kbus: %s", error->message);
    *resultCode = noBus;
    return nullptr;
  }
  // Shared among the instances of a service: a second one gets as far as finding out that it is one.
  if (!kbus::claimName(connection.get(), serviceName, kbus::Sharing::withLaterClaimants, error)) {
    syslog(LOG_ERR, "kbus: %s: %s", serviceName, error ? error->message : "the name is taken");
    *resultCode = nameTaken;
    return nullptr;
  }
  auto* handle = new (std::nothrow) KbusHandleStruct{std::move(connection)};
  *resultCode = handle != nullptr ? ready : noBus;
  return handle;
}

int KbusClose(KbusHandleStruct* handle) {
  if (handle == nullptr) return -1;
  const std::unique_ptr<KbusHandleStruct> owned(handle);
  return g_dbus_connection_close_sync(owned->connection.get(), nullptr, nullptr) != FALSE ? 0 : -1;
}
