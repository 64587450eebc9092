#include "platform/kbus.h"

#include <syslog.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <future>
#include <memory>

#include "standin/library/bus_handle.h"
#include "standin/library/fault_signals.h"

namespace {

constexpr int failed = 1;

// A later instance of a service takes the name over, and gives it back when it ends. So it comes to where it
// sees the first one.
constexpr auto sharing = static_cast<GBusNameOwnerFlags>(G_BUS_NAME_OWNER_FLAGS_ALLOW_REPLACEMENT |
                                                         G_BUS_NAME_OWNER_FLAGS_REPLACE);

// Where GLib gives up for want of memory, threads or descriptors, the process ends with status 1, as programs
// do when anything else fails, instead of by a signal. GLib may have blocked that signal by then.
void endWithStatusOneOnFatalErrors() {
  g_log_set_default_handler(
      [](const char* domain, GLogLevelFlags level, const char* message, gpointer unused) {
        if ((level & G_LOG_FLAG_FATAL) == 0) return g_log_default_handler(domain, level, message, unused);
        (void)std::fprintf(stderr, "%s\n", message);
        _exit(EXIT_FAILURE);
      },
      nullptr);
}

// For this thread and those that it starts: signals are the process's business. All but those of a fault,
// which would end the process without its crash dump.
void blockSignals() {
  sigset_t most;
  sigfillset(&most);
  for (const int fault : faultSignals) sigdelset(&most, fault);
  pthread_sigmask(SIG_SETMASK, &most, nullptr);
}

// On another thread, so that the caller can give up a bus that never answers. One that falls silent after
// the authentication takes GIO's own 25 s.
kbus::Owned<GDBusConnection> connectInTime(GError** error) {
  g_autoptr(GCancellable) cancellable = g_cancellable_new();
  std::future<kbus::Owned<GDBusConnection>> connecting = std::async(std::launch::async, [&] {
    blockSignals();
    return kbus::connect(cancellable, error);
  });
  const auto timeout = std::chrono::milliseconds(kbus::callTimeoutMilliseconds);
  const bool inTime = connecting.wait_for(timeout) == std::future_status::ready;
  if (!inTime) g_cancellable_cancel(cancellable);
  kbus::Owned<GDBusConnection> bus = connecting.get();
  if (!bus && !inTime) {
    g_clear_error(error);
    g_set_error_literal(error, G_IO_ERROR, G_IO_ERROR_TIMED_OUT, "the bus does not answer");
  }
  return bus;
}

}  // namespace

KbusHandleStruct* KbusOpenEx(const char* serviceName, int* resultCode) try {
  endWithStatusOneOnFatalErrors();
  g_autoptr(GError) error = nullptr;
  auto handle = std::make_unique<KbusHandleStruct>();
  handle->bus = connectInTime(&error);
  if (!handle->bus || !kbus::claimName(handle->bus.get(), serviceName, sharing, &error)) {
    syslog(LOG_ERR, "kbus: %s", error->message);
    *resultCode = failed;
    return nullptr;
  }
  *resultCode = 0;
  return handle.release();
} catch (const std::exception& error) {  // no memory, no thread
  syslog(LOG_ERR, "kbus: %s", error.what());
  *resultCode = failed;
  return nullptr;
}

int KbusClose(KbusHandleStruct* handle) {
  if (handle == nullptr) return -1;
  if (handle->clients != 0) std::abort();
  const std::unique_ptr<KbusHandleStruct> owned(handle);
  return g_dbus_connection_close_sync(owned->bus.get(), nullptr, nullptr) != FALSE ? 0 : -1;
}
