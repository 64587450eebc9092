/// The device's transfer service: downloads for its clients on the bus, see transfer_interface.h.

#include <map>
#include <string>
#include <string_view>
#include <utility>

#include "platform/xfr.h"
#include "standin/services/bus_service.h"
#include "standin/services/fetch.h"
#include "standin/transfer_interface.h"

namespace {

constexpr int transferring = 4;

void answer(GDBusMethodInvocation* call) {
  g_dbus_method_invocation_return_value(call, nullptr);
}

struct Transfer {
  std::string address;
  std::string destination;
  std::unique_ptr<Fetch> fetch;  // while curl runs
  bool finished = false;
  GDBusMethodInvocation* finishing = nullptr;  // the call that is answered when curl has ended
};

class TransferService {
 public:
  void begin(GDBusConnection* bus) { bus_ = bus; }
  void handle(const std::string& client, std::string_view method, GVariant* arguments,
              GDBusMethodInvocation* call);
  void putOff(int deferredCode);
  void clientIsGone(const std::string& client);

 private:
  using Transfers = std::map<std::pair<std::string, int>, Transfer>;  // by client and the client's number

  // Each may remove the transfer.
  void proceed(Transfers::iterator entry);
  void finish(Transfers::iterator entry, GDBusMethodInvocation* call);
  void start(Transfers::iterator entry);
  void end(Transfers::iterator entry, int result);

  void report(Transfers::iterator entry, int state, int errorCode) const;

  GDBusConnection* bus_ = nullptr;
  int deferredCode_ = 0;
  Transfers transfers_;
};

// Brings a transfer's work in line with its state.
void TransferService::proceed(Transfers::iterator entry) {
  Transfer& transfer = entry->second;
  if (transfer.fetch) {
    // Comes back here when curl has ended.
    if (transfer.finished || deferredCode_ != 0) transfer.fetch->stop();
  } else if (transfer.finished) {
    if (transfer.finishing != nullptr) answer(transfer.finishing);
    transfers_.erase(entry);
  } else if (deferredCode_ != 0) {
    report(entry, xfr::transferDeferred, 0);
  } else {
    start(entry);
  }
}

void TransferService::start(Transfers::iterator entry) {
  Transfer& transfer = entry->second;
  transfer.fetch = std::make_unique<Fetch>([this, entry](int result) { end(entry, result); });
  report(entry, transferring, 0);
  const int result = transfer.fetch->start(transfer.address, transfer.destination);
  if (result != Fetch::whole) end(entry, result);
}

void TransferService::end(Transfers::iterator entry, int result) {
  entry->second.fetch.reset();
  if (result == Fetch::stopped) return proceed(entry);
  report(entry, result == Fetch::whole ? xfr::downloadCompleted : xfr::transferFailed, result);
  transfers_.erase(entry);
}

void TransferService::report(Transfers::iterator entry, int state, int errorCode) const {
  const auto& [client, id] = entry->first;
  g_dbus_connection_emit_signal(bus_, client.c_str(), kbus::objectPath(xfr::service::name).c_str(),
                                xfr::service::name, "Progress",
                                g_variant_new("(iiii)", id, state, errorCode, deferredCode_), nullptr);
}

void TransferService::finish(Transfers::iterator entry, GDBusMethodInvocation* call) {
  Transfer& transfer = entry->second;
  transfer.finished = true;
  if (transfer.finishing != nullptr) answer(transfer.finishing);
  transfer.finishing = call;
  proceed(entry);
}

void TransferService::handle(const std::string& client, std::string_view method, GVariant* arguments,
                             GDBusMethodInvocation* call) {
  int id = 0;
  g_variant_get_child(arguments, 0, "i", &id);
  auto entry = transfers_.find({client, id});
  if (method == "Finish") {
    if (entry != transfers_.end()) return finish(entry, call);
    return answer(call);  // it has ended by itself
  }
  if (entry != transfers_.end()) {
    return g_dbus_method_invocation_return_error(call, G_DBUS_ERROR, G_DBUS_ERROR_INVALID_ARGS,
                                                 "another transfer has the number %d", id);
  }
  const char* address = nullptr;
  const char* destination = nullptr;
  g_variant_get(arguments, "(i^&ay^&ay)", nullptr, &address, &destination);
  entry = transfers_.try_emplace({client, id}).first;
  entry->second.address = address;
  entry->second.destination = destination;
  answer(call);
  proceed(entry);
}

void TransferService::putOff(int deferredCode) {
  if (deferredCode == deferredCode_) return;
  deferredCode_ = deferredCode;
  for (auto next = transfers_.begin(); next != transfers_.end();) proceed(next++);
}

void TransferService::clientIsGone(const std::string& client) {
  for (auto next = transfers_.begin(); next != transfers_.end();) {
    const auto entry = next++;
    if (entry->first.first == client) finish(entry, nullptr);
  }
}

void handleCall(GDBusConnection* /*bus*/, const gchar* client, const gchar* /*path*/,
                const gchar* /*interface*/, const gchar* method, GVariant* arguments,
                GDBusMethodInvocation* call, gpointer service) {
  static_cast<TransferService*>(service)->handle(client, method, arguments, call);
}

void ownerChanged(GDBusConnection* /*bus*/, const gchar* /*sender*/, const gchar* /*path*/,
                  const gchar* /*interface*/, const gchar* /*signal*/, GVariant* change, gpointer service) {
  const char* name = nullptr;
  const char* newOwner = nullptr;
  g_variant_get(change, "(&s&s&s)", &name, nullptr, &newOwner);
  if (*newOwner == '\0') static_cast<TransferService*>(service)->clientIsGone(name);
}

gboolean setDeferred(GDBusConnection* /*bus*/, const gchar* /*sender*/, const gchar* /*path*/,
                     const gchar* /*interface*/, const gchar* /*property*/, GVariant* value,
                     GError** /*error*/, gpointer service) {
  static_cast<TransferService*>(service)->putOff(g_variant_get_int32(value));
  return TRUE;
}

void prepare(GDBusConnection* bus, gpointer service) {
  static_cast<TransferService*>(service)->begin(bus);
  g_dbus_connection_signal_subscribe(bus, "org.freedesktop.DBus", "org.freedesktop.DBus", "NameOwnerChanged",
                                     "/org/freedesktop/DBus", nullptr, G_DBUS_SIGNAL_FLAGS_NONE, ownerChanged,
                                     service, nullptr);
}

}  // namespace

int main() {
  TransferService service;
  return kbus::serve(xfr::service::name, xfr::service::description, {handleCall, nullptr, setDeferred, {}},
                     &service, prepare);
}
