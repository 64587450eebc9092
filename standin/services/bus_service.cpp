#include "standin/services/bus_service.h"

#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>

namespace kbus {
namespace {

[[noreturn]] void fail(const char* reason) {
  (void)std::fprintf(stderr, "%s: %s\n", program_invocation_short_name, reason);
  _exit(EXIT_FAILURE);
}

}  // namespace

Owned<GDBusConnection> connectService() {
  g_autoptr(GError) error = nullptr;
  Owned<GDBusConnection> bus = connect(nullptr, &error);
  if (!bus) fail(error->message);
  g_signal_connect(bus.get(), "closed", G_CALLBACK(+[] { fail("the bus is gone"); }), nullptr);
  return bus;
}

void serve(GDBusConnection* bus, const char* description, const GDBusInterfaceVTable& operations,
           gpointer data) {
  GDBusInterfaceInfo* const interface = g_dbus_node_info_new_for_xml(description, nullptr)->interfaces[0];
  g_dbus_connection_register_object(bus, "/", interface, &operations, data, nullptr, nullptr);
  g_autoptr(GError) error = nullptr;
  if (!claimName(bus, interface->name, G_BUS_NAME_OWNER_FLAGS_DO_NOT_QUEUE, &error)) fail(error->message);

  (void)std::setvbuf(stdout, nullptr, _IOLBF, 0);
  (void)std::printf("%s: ready\n", program_invocation_short_name);
  GMainLoop* const loop = g_main_loop_new(nullptr, FALSE);
  for (;;) g_main_loop_run(loop);
}

}  // namespace kbus
