/// The device's transfer service: downloads for its clients on the bus, see transfer_interface.h.

#include <list>
#include <memory>
#include <string>
#include <string_view>

#include "platform/xfr.h"
#include "standin/services/bus_service.h"
#include "standin/services/fetch.h"
#include "standin/transfer_interface.h"

namespace {

constexpr int transferring = 4;

struct Transfer {
  std::string client;
  int id;  // the client's
  std::string address;
  std::string destination;
  std::unique_ptr<Fetch> fetch;  // while curl runs
};

struct TransferService {
  using Entry = std::list<Transfer>::iterator;

  void report(const Transfer& transfer, int state, int errorCode = 0) const;

  /// Puts a transfer off or begins it, perhaps again. May remove it.
  void proceed(Entry transfer);

  void end(Entry transfer, int result);

  GDBusConnection* bus;
  std::list<Transfer> transfers;
  int deferredCode = 0;
};

void TransferService::report(const Transfer& transfer, int state, int errorCode) const {
  g_dbus_connection_emit_signal(bus, transfer.client.c_str(), "/", xfr::service::name, "Progress",
                                g_variant_new("(iiii)", transfer.id, state, errorCode, deferredCode),
                                nullptr);
}

void TransferService::proceed(Entry transfer) {
  transfer->fetch.reset();
  if (deferredCode != 0) return report(*transfer, xfr::transferDeferred);
  report(*transfer, transferring);
  transfer->fetch = std::make_unique<Fetch>([this, transfer](int result) { end(transfer, result); });
  if (!transfer->fetch->start(transfer->address, transfer->destination)) end(transfer, Fetch::couldNotBegin);
}

void TransferService::end(Entry transfer, int result) {
  report(*transfer, result == Fetch::whole ? xfr::downloadCompleted : xfr::transferFailed, result);
  transfers.erase(transfer);
}

void handleCall(GDBusConnection* /*bus*/, const char* client, const char* /*path*/, const char* /*interface*/,
                const char* method, GVariant* arguments, GDBusMethodInvocation* call, gpointer data) {
  auto& service = *static_cast<TransferService*>(data);
  int id = 0;
  g_variant_get_child(arguments, 0, "i", &id);
  // A number that is used again gets a new transfer.
  service.transfers.remove_if(
      [&](const Transfer& transfer) { return transfer.client == client && transfer.id == id; });
  g_dbus_method_invocation_return_value(call, nullptr);
  if (std::string_view(method) == "Finish") return;

  const char* address = nullptr;
  const char* destination = nullptr;
  g_variant_get(arguments, "(i^&ay^&ay)", nullptr, &address, &destination);
  service.transfers.push_front({client, id, address, destination, nullptr});
  service.proceed(service.transfers.begin());
}

gboolean setDeferred(GDBusConnection* /*bus*/, const char* /*sender*/, const char* /*path*/,
                     const char* /*interface*/, const char* /*property*/, GVariant* value, GError** /*error*/,
                     gpointer data) {
  auto& service = *static_cast<TransferService*>(data);
  const int code = g_variant_get_int32(value);
  if (code == service.deferredCode) return TRUE;
  service.deferredCode = code;
  for (auto next = service.transfers.begin(); next != service.transfers.end();) service.proceed(next++);
  return TRUE;
}

void ownerChanged(GDBusConnection* /*bus*/, const char* /*sender*/, const char* /*path*/,
                  const char* /*interface*/, const char* /*signal*/, GVariant* change, gpointer data) {
  const char* name = nullptr;
  const char* newOwner = nullptr;
  g_variant_get(change, "(&s&s&s)", &name, nullptr, &newOwner);
  if (*newOwner != '\0') return;
  static_cast<TransferService*>(data)->transfers.remove_if(
      [&](const Transfer& transfer) { return transfer.client == name; });
}

}  // namespace

int main() {
  const kbus::Owned<GDBusConnection> bus = kbus::connectService();
  TransferService service{bus.get(), {}};
  g_dbus_connection_signal_subscribe(bus.get(), "org.freedesktop.DBus", "org.freedesktop.DBus",
                                     "NameOwnerChanged", "/org/freedesktop/DBus", nullptr,
                                     G_DBUS_SIGNAL_FLAGS_NONE, ownerChanged, &service, nullptr);
  kbus::serve(bus.get(), xfr::service::description, {handleCall, nullptr, setDeferred, {}}, &service);
}
