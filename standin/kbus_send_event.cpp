#include <cstdio>
#include <string_view>

#include "standin/bus_connection.h"

namespace {

int usage() {
  (void)std::fputs("usage: kbus-send-event NAME EVENT [-s TEXT]...\n", stderr);
  return 2;
}

int fail(const char* what, const char* why) {
  (void)std::fprintf(stderr, "kbus-send-event: %s: %s\n", what, why);
  return 1;
}

}  // namespace

// Emits a signal under a dotted name, with the texts as its parameters.
int main(int argc, char* argv[]) {
  kbus::endWithStatusOneOnFatalErrors();
  if (argc < 3) return usage();
  const char* name = argv[1];
  const char* event = argv[2];
  if (g_dbus_is_interface_name(name) == FALSE) return fail(name, "not a dotted name");
  if (g_dbus_is_member_name(event) == FALSE) return fail(event, "not the name of an event");

  GVariantBuilder parameters;
  g_variant_builder_init(&parameters, G_VARIANT_TYPE_TUPLE);
  int next = 3;
  for (; next + 1 < argc && std::string_view(argv[next]) == "-s"; next += 2) {
    if (g_utf8_validate(argv[next + 1], -1, nullptr) == FALSE) {
      g_variant_builder_clear(&parameters);
      return fail(argv[next + 1], "not UTF-8");
    }
    g_variant_builder_add(&parameters, "s", argv[next + 1]);
  }
  const kbus::Variant texts(g_variant_ref_sink(g_variant_builder_end(&parameters)));
  if (next != argc) return usage();

  kbus::Error error;
  const kbus::Connection bus = kbus::connect(error);
  if (!bus) return fail("no bus", error->message);
  GError* failure = nullptr;
  const bool sent = g_dbus_connection_emit_signal(bus.get(), nullptr, kbus::objectPath(name).c_str(), name,
                                                  event, texts.get(), &failure) != FALSE;
  error.reset(failure);
  return sent && kbus::arrived(bus.get(), error) ? 0 : fail(name, error->message);
}
