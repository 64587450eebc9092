#include "platform/kbus.h"

#include <syslog.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <future>
#include <memory>

#include "standin/bus_connection.h"
#include "standin/library/block_signals.h"
#include "standin/library/bus_handle.h"

namespace {

constexpr int ready = 0;
constexpr int noBus = 1;
constexpr int nameTaken = 2;

// Where GLib gives up for want of memory, threads or descriptors, the process says so and ends with
// status 1, as programs do when anything else fails, instead of by a signal.
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

// On another thread: GIO's thread starts there, with signals blocked, and the caller can give up a bus that
// never answers. One that falls silent after the authentication takes GIO's own 25 s.
kbus::Connection connectInTime(kbus::Error& error) {
  const std::unique_ptr<GCancellable, kbus::Unref> cancellable(g_cancellable_new());
  std::future<kbus::Connection> connecting;
  {
    const kbus::BlockSignals block;
    connecting = std::async(std::launch::async, [&] { return kbus::connect(cancellable.get(), error); });
  }
  const bool inTime = connecting.wait_for(std::chrono::milliseconds(kbus::callTimeoutMilliseconds)) ==
                      std::future_status::ready;
  if (!inTime) g_cancellable_cancel(cancellable.get());
  kbus::Connection connection = connecting.get();
  if (!connection && !inTime) {
    error.reset(g_error_new_literal(G_IO_ERROR, G_IO_ERROR_TIMED_OUT, "the bus does not answer"));
  }
  return connection;
}

}  // namespace

KbusHandleStruct* KbusOpenEx(const char* serviceName, int* resultCode) try {
  endWithStatusOneOnFatalErrors();
  kbus::Error error;
  auto handle = std::make_unique<KbusHandleStruct>();
  handle->connection = connectInTime(error);
  if (!handle->connection) {
    syslog(LOG_ERR, "kbus: %s", error->message);
    *resultCode = noBus;
    return nullptr;
  }
  // Shared among the instances of a service, so that a second one comes to where it sees the first.
  if (!kbus::claimName(handle->connection.get(), serviceName, kbus::Sharing::withLaterClaimants, error)) {
    syslog(LOG_ERR, "kbus: %s: %s", serviceName, error ? error->message : "the name is taken");
    *resultCode = nameTaken;
    return nullptr;
  }
  *resultCode = ready;
  return handle.release();
} catch (const std::exception& error) {  // no memory, no thread
  syslog(LOG_ERR, "kbus: %s", error.what());
  *resultCode = noBus;
  return nullptr;
}

int KbusClose(KbusHandleStruct* handle) {
  if (handle == nullptr) return -1;
  if (handle->clients != 0) std::abort();
  const std::unique_ptr<KbusHandleStruct> owned(handle);
  return g_dbus_connection_close_sync(owned->connection.get(), nullptr, nullptr) != FALSE ? 0 : -1;
}
