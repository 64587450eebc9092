#include <cstdio>
#include <cstring>

#include "standin/services/bus_service.h"

// A tiny UI shell: prints what a real one would show.
namespace {

constexpr const char* service = "com.qorvex.vestrel";
constexpr const char* interfaceDescription =
    "<node><interface name='com.qorvex.vestrel'>"
    "<property name='load' type='s' access='write'/></interface></node>";

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
  (void)std::printf("vestrel: %s %s: %s\n", event, code, textOf(code));
}

void listen(GDBusConnection* bus, gpointer /*unused*/) {
  g_dbus_connection_signal_subscribe(bus, nullptr, "com.qorvex.vestrel.zelo", nullptr, nullptr, nullptr,
                                     G_DBUS_SIGNAL_FLAGS_NONE, hearEvent, nullptr, nullptr);
}

}  // namespace

int main() {
  return kbus::serve(service, interfaceDescription, {nullptr, nullptr, setLoad, {}}, nullptr, listen);
}
