#include <glib-unix.h>

#include <cstdio>
#include <cstring>
#include <memory>
#include <string>

#include "standin/bus_connection.h"

// A tiny UI shell: prints what a real one would show.
namespace {

constexpr const char* service = "com.qorvex.vestrel";
constexpr const char* interfaceDescription =
    "<node><interface name='com.qorvex.vestrel'>"
    "<property name='load' type='s' access='readwrite'/></interface></node>";

struct CodeText {
  const char* code;
  const char* text;
};

constexpr CodeText texts[] = {{"00", "The update could not be verified."},
                              {"01", "The update could not be unpacked."},
                              {"02", "The update could not be downloaded."},
                              {"03", "The update could not be installed."},
                              {"99", "The update failed."}};

const char* textOf(const char* code) {
  for (const CodeText& entry : texts) {
    if (std::strcmp(entry.code, code) == 0) return entry.text;
  }
  return "An unknown error occurred.";
}

GVariant* getLoad(GDBusConnection* /*bus*/, const char* /*sender*/, const char* /*path*/,
                  const char* /*interface*/, const char* /*property*/, GError** /*error*/, gpointer load) {
  return g_variant_new_string(static_cast<std::string*>(load)->c_str());
}

gboolean setLoad(GDBusConnection* /*bus*/, const char* /*sender*/, const char* /*path*/,
                 const char* /*interface*/, const char* /*property*/, GVariant* value, GError** /*error*/,
                 gpointer load) {
  *static_cast<std::string*>(load) = g_variant_get_string(value, nullptr);
  (void)std::printf("vestrel: load = %s\n", g_variant_get_string(value, nullptr));
  return TRUE;
}

void hearEvent(GDBusConnection* /*bus*/, const char* /*sender*/, const char* /*path*/,
               const char* /*interface*/, const char* event, GVariant* parameters, gpointer /*unused*/) {
  if (g_variant_is_of_type(parameters, G_VARIANT_TYPE("(s)")) == FALSE) return;
  const char* code = nullptr;
  g_variant_get(parameters, "(&s)", &code);
  (void)std::printf("vestrel: %s %s: %s\n", event, code, textOf(code));
}

gboolean quit(gpointer loop) {
  g_main_loop_quit(static_cast<GMainLoop*>(loop));
  return G_SOURCE_CONTINUE;
}

void busGone(GDBusConnection* /*bus*/, gboolean /*remote*/, GError* /*error*/, gpointer loop) {
  (void)std::fputs("vestrel: the bus is gone\n", stderr);
  quit(loop);
}

int fail(const char* what, const GError* error) {
  (void)std::fprintf(stderr, "vestrel: %s: %s\n", what,
                     error != nullptr ? error->message : "the name is taken");
  return 1;
}

}  // namespace

int main() {
  (void)std::setvbuf(stdout, nullptr, _IOLBF, 0);
  kbus::Error error;
  const kbus::Connection bus = kbus::connect(error);
  if (!bus) return fail("no bus", error.get());

  std::string load;
  const std::unique_ptr<GDBusNodeInfo, decltype(&g_dbus_node_info_unref)> node(
      g_dbus_node_info_new_for_xml(interfaceDescription, nullptr), g_dbus_node_info_unref);
  const GDBusInterfaceVTable operations{nullptr, getLoad, setLoad, {}};
  GError* failure = nullptr;
  const guint object =
      g_dbus_connection_register_object(bus.get(), kbus::objectPath(service).c_str(), node->interfaces[0],
                                        &operations, &load, nullptr, &failure);
  error.reset(failure);
  if (object == 0) return fail("unable to offer the property", error.get());
  g_dbus_connection_signal_subscribe(bus.get(), nullptr, "com.qorvex.vestrel.zelo", nullptr, nullptr, nullptr,
                                     G_DBUS_SIGNAL_FLAGS_NONE, hearEvent, nullptr, nullptr);
  // Behind the subscription: who sees the name can count on being heard.
  if (!kbus::claimName(bus.get(), service, kbus::Sharing::none, error)) return fail(service, error.get());

  const std::unique_ptr<GMainLoop, decltype(&g_main_loop_unref)> loop(g_main_loop_new(nullptr, FALSE),
                                                                      g_main_loop_unref);
  g_signal_connect(bus.get(), "closed", G_CALLBACK(busGone), loop.get());
  g_unix_signal_add(SIGTERM, quit, loop.get());
  g_unix_signal_add(SIGINT, quit, loop.get());
  (void)std::puts("vestrel: ready");
  g_main_loop_run(loop.get());
  return g_dbus_connection_is_closed(bus.get()) != FALSE ? 1 : 0;
}
