#include <cstdio>

#include "standin/services/bus_service.h"

// A tiny UI shell: prints what it is told to show.
namespace {

constexpr const char* description =
    "<node><interface name='com.qorvex.vestrel'>"
    "<property name='load' type='s' access='write'/></interface></node>";

gboolean setLoad(GDBusConnection* /*bus*/, const char* /*sender*/, const char* /*path*/,
                 const char* /*interface*/, const char* /*property*/, GVariant* value, GError** /*error*/,
                 gpointer /*unused*/) {
  (void)std::printf("vestrel: load = %s\n", g_variant_get_string(value, nullptr));
  return TRUE;
}

void hearEvent(GDBusConnection* /*bus*/, const char* /*sender*/, const char* /*path*/,
               const char* /*interface*/, const char* event, GVariant* parameters, gpointer /*unused*/) {
  if (g_variant_is_of_type(parameters, G_VARIANT_TYPE("(s)")) == FALSE) return;
  const char* code = nullptr;
  g_variant_get(parameters, "(&s)", &code);
  (void)std::printf("vestrel: %s %s\n", event, code);
}

}  // namespace

int main() {
  const kbus::Owned<GDBusConnection> bus = kbus::connectService();
  g_dbus_connection_signal_subscribe(bus.get(), nullptr, "com.qorvex.vestrel.zelo", nullptr, nullptr, nullptr,
                                     G_DBUS_SIGNAL_FLAGS_NONE, hearEvent, nullptr, nullptr);
  kbus::serve(bus.get(), description, {nullptr, nullptr, setLoad, {}}, nullptr);
}
