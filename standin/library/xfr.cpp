#include "platform/xfr.h"

#include <syslog.h>

#include <map>
#include <mutex>

#include "standin/library/bus_handle.h"
#include "standin/transfer_interface.h"

namespace xfr {
namespace {

struct Handle final : Transfer {
  explicit Handle(int idValue) : id(idValue) {}
  const int& getId() override { return id; }

  const int id;
};

struct Status final : TransferStatus {
  int getId() override { return id; }
  int getState() override { return state; }
  int getErrorCode() override { return errorCode; }
  int getDeferredCode() override { return deferredCode; }

  int id = 0;
  int state = 0;
  int errorCode = 0;
  int deferredCode = 0;
};

/// Who listens to which transfer. After `forget` a listener is called no more.
class Listeners {
 public:
  void add(int id, TransferListener* listener) {
    const std::lock_guard lock(mutex_);
    listeners_[id] = listener;
  }
  void forget(int id) {
    const std::lock_guard lock(mutex_);
    listeners_.erase(id);
  }
  void call(Status& status) {
    const std::lock_guard lock(mutex_);
    const auto found = listeners_.find(status.id);
    if (found != listeners_.end()) found->second->onProgress(&status);
  }

 private:
  std::mutex mutex_;
  std::map<int, TransferListener*> listeners_;
};

// Of the process, which has one client: the bus's thread may still use them when that is gone.
Listeners g_listeners;

// Gets every message, on the bus's own thread.
GDBusMessage* filter(GDBusConnection* /*bus*/, GDBusMessage* message, gboolean incoming,
                     gpointer /*unused*/) {
  if (incoming == FALSE || g_strcmp0(g_dbus_message_get_interface(message), service::name) != 0)
    return message;
  GVariant* const progress = g_dbus_message_get_body(message);
  if (progress != nullptr && g_variant_is_of_type(progress, G_VARIANT_TYPE("(iiii)")) != FALSE) {
    Status status;
    g_variant_get(progress, "(iiii)", &status.id, &status.state, &status.errorCode, &status.deferredCode);
    g_listeners.call(status);
  }
  return message;
}

}  // namespace

struct TransferRequestDescImpl::State {
  const char* sourceAddress;
  const char* destinationPath;
  TransferListener* listener;
};

TransferRequestDescImpl::TransferRequestDescImpl(
    const char* sourceAddress, const char* /*unused2*/, const char* /*method*/, const char* destinationPath,
    const char* /*unused5*/, int /*unused6*/, const char* /*unused7*/, GHashTable* /*unused8*/,
    const char* /*clientName*/, const char* /*unused10*/, const char* /*displayAddress*/,
    const char* /*unused12*/, const char* /*passThrough*/, int /*unused14*/, int /*unused15*/,
    const char* /*requestName*/, TransferListener* listener, bool /*unused18*/, int /*unused19*/,
    const char* /*unused20*/)
    : state_(std::make_unique<State>(State{sourceAddress, destinationPath, listener})) {}

TransferRequestDescImpl::~TransferRequestDescImpl() = default;

struct TransferServiceImpl::State {
  explicit State(KbusHandleStruct* busHandle) : handle(busHandle) { ++handle->clients; }
  State(const State&) = delete;
  State& operator=(const State&) = delete;
  ~State() {
    if (subscription != 0) g_dbus_connection_remove_filter(handle->bus.get(), subscription);
    --handle->clients;
  }

  [[nodiscard]] bool call(const char* method, GVariant* arguments,
                          const char* interface = service::name) const;

  KbusHandleStruct* const handle;
  guint subscription = 0;
  int lastId = 0;
};

bool TransferServiceImpl::State::call(const char* method, GVariant* arguments, const char* interface) const {
  g_autoptr(GError) error = nullptr;
  g_autoptr(GVariant) reply = g_dbus_connection_call_sync(
      handle->bus.get(), service::name, "/", interface, method, arguments, nullptr,
      G_DBUS_CALL_FLAGS_NO_AUTO_START, kbus::callTimeoutMilliseconds, nullptr, &error);
  if (reply == nullptr) syslog(LOG_ERR, "kbus: %s: %s", service::name, error->message);
  return reply != nullptr;
}

TransferServiceImpl::TransferServiceImpl(KbusHandleStruct* bus) : state_(std::make_unique<State>(bus)) {}

TransferServiceImpl::~TransferServiceImpl() = default;

bool TransferServiceImpl::initialize() {
  if (!state_->call("Ping", nullptr, "org.freedesktop.DBus.Peer")) return false;
  state_->subscription = g_dbus_connection_add_filter(state_->handle->bus.get(), filter, nullptr, nullptr);
  return true;
}

Transfer* TransferServiceImpl::initiateTransfer(TransferRequestDescImpl* request) {
  if (state_->subscription == 0) return nullptr;
  const TransferRequestDescImpl::State& wanted = *request->state_;
  auto handle = std::make_unique<Handle>(++state_->lastId);
  g_listeners.add(handle->id, wanted.listener);
  wanted.listener->setTransfer(handle.get());
  if (state_->call("Initiate",
                   g_variant_new("(i^ay^ay)", handle->id, wanted.sourceAddress, wanted.destinationPath))) {
    return handle.release();
  }
  g_listeners.forget(handle->id);
  // A service that has only been too slow to answer must not go on.
  g_dbus_connection_call(state_->handle->bus.get(), service::name, "/", service::name, "Finish",
                         g_variant_new("(i)", handle->id), nullptr, G_DBUS_CALL_FLAGS_NO_AUTO_START,
                         kbus::callTimeoutMilliseconds, nullptr, nullptr, nullptr);
  wanted.listener->setTransfer(nullptr);
  return nullptr;
}

int TransferServiceImpl::suspendTransfer(Transfer* /*transfer*/) {
  return -1;  // this service cannot
}

int TransferServiceImpl::finishTransfer(Transfer* transfer, int /*reason*/) {
  g_listeners.forget(transfer->getId());
  return state_->call("Finish", g_variant_new("(i)", transfer->getId())) ? 0 : -1;
}

}  // namespace xfr
