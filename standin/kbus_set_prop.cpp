#include <cstdio>

#include "standin/bus_connection.h"

namespace {

constexpr int callTimeoutMilliseconds = 10000;

int fail(const char* what, const kbus::Error& error) {
  (void)std::fprintf(stderr, "kbus-set-prop: %s: %s\n", what, error->message);
  return 1;
}

}  // namespace

// Sets a string property of a service: of the object and the interface that bear its name.
int main(int argc, char* argv[]) {
  kbus::endWithStatusOneOnFatalErrors();
  if (argc != 4) {
    (void)std::fputs("usage: kbus-set-prop SERVICE PROPERTY VALUE\n", stderr);
    return 2;
  }
  const char* service = argv[1];
  if (g_dbus_is_interface_name(service) == FALSE || g_utf8_validate(argv[2], -1, nullptr) == FALSE ||
      g_utf8_validate(argv[3], -1, nullptr) == FALSE) {
    (void)std::fprintf(stderr, "kbus-set-prop: not a service name with a UTF-8 property and value: %s\n",
                       service);
    return 2;
  }
  kbus::Error error;
  const kbus::Connection bus = kbus::connect(error);
  if (!bus) return fail("no bus", error);
  GError* failure = nullptr;
  const kbus::Variant reply(g_dbus_connection_call_sync(
      bus.get(), service, kbus::objectPath(service).c_str(), "org.freedesktop.DBus.Properties", "Set",
      g_variant_new("(ssv)", service, argv[2], g_variant_new_string(argv[3])), nullptr,
      G_DBUS_CALL_FLAGS_NONE, callTimeoutMilliseconds, nullptr, &failure));
  error.reset(failure);
  return reply ? 0 : fail(service, error);
}
