#include "standin/services/bus_service.h"

#include <glib-unix.h>

#include <cerrno>
#include <cstdio>

namespace kbus {
namespace {

gboolean quit(gpointer loop) {
  g_main_loop_quit(static_cast<GMainLoop*>(loop));
  return G_SOURCE_CONTINUE;
}

void say(const char* text) {
  (void)std::printf("%s: %s\n", program_invocation_short_name, text);
}

int fail(const char* what, const GError* error) {
  (void)std::fprintf(stderr, "%s: %s: %s\n", program_invocation_short_name, what,
                     error != nullptr ? error->message : "the name is taken");
  return 1;
}

}  // namespace

int serve(const char* name, const char* description, const GDBusInterfaceVTable& operations, gpointer data,
          void (*prepare)(GDBusConnection* bus, gpointer data)) {
  (void)std::setvbuf(stdout, nullptr, _IOLBF, 0);
  Error error;
  const Connection bus = connect(nullptr, error);
  if (!bus) return fail("no bus", error.get());

  const std::unique_ptr<GDBusNodeInfo, decltype(&g_dbus_node_info_unref)> node(
      g_dbus_node_info_new_for_xml(description, nullptr), g_dbus_node_info_unref);
  GError* failure = nullptr;
  const guint object = g_dbus_connection_register_object(
      bus.get(), objectPath(name).c_str(), node->interfaces[0], &operations, data, nullptr, &failure);
  error.reset(failure);
  if (object == 0) return fail("unable to offer the object", error.get());
  prepare(bus.get(), data);
  if (!claimName(bus.get(), name, Sharing::none, error)) return fail(name, error.get());

  const std::unique_ptr<GMainLoop, decltype(&g_main_loop_unref)> loop(g_main_loop_new(nullptr, FALSE),
                                                                      g_main_loop_unref);
  g_signal_connect_swapped(bus.get(), "closed", G_CALLBACK(quit), loop.get());
  g_unix_signal_add(SIGTERM, quit, loop.get());
  g_unix_signal_add(SIGINT, quit, loop.get());
  say("ready");
  g_main_loop_run(loop.get());
  if (g_dbus_connection_is_closed(bus.get()) == FALSE) return 0;
  say("the bus is gone");
  return 1;
}

}  // namespace kbus
