#include <syslog.h>

#include <atomic>
#include <map>
#include <mutex>
#include <string>
#include <string_view>
#include <system_error>
#include <thread>

#include "platform/xfr.h"
#include "standin/bus_connection.h"
#include "standin/library/block_signals.h"
#include "standin/library/bus_handle.h"
#include "standin/transfer_interface.h"

namespace xfr {
namespace {

struct UnrefContext {
  void operator()(GMainContext* context) const { g_main_context_unref(context); }
};

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

}  // namespace

struct TransferRequestDescImpl::State {
  const char* sourceAddress;
  const char* method;
  const char* destinationPath;
  TransferListener* listener;
};

TransferRequestDescImpl::TransferRequestDescImpl(
    const char* sourceAddress, const char* /*unused2*/, const char* method, const char* destinationPath,
    const char* /*unused5*/, int /*unused6*/, const char* /*unused7*/, GHashTable* /*unused8*/,
    const char* /*clientName*/, const char* /*unused10*/, const char* /*displayAddress*/,
    const char* /*unused12*/, const char* /*passThrough*/, int /*unused14*/, int /*unused15*/,
    const char* /*requestName*/, TransferListener* listener, bool /*unused18*/, int /*unused19*/,
    const char* /*unused20*/)
    : state_(std::make_unique<State>(State{sourceAddress, method, destinationPath, listener})) {}

TransferRequestDescImpl::~TransferRequestDescImpl() = default;

struct TransferServiceImpl::State {
  explicit State(KbusHandleStruct* busHandle) : handle(busHandle), bus(busHandle->connection.get()) {
    ++handle->clients;
  }
  State(const State&) = delete;
  State& operator=(const State&) = delete;
  ~State() { --handle->clients; }

  [[nodiscard]] bool start();
  void stop();
  [[nodiscard]] bool call(const char* interface, const char* method, GVariant* arguments) const;
  [[nodiscard]] bool call(const char* method, GVariant* arguments) const {
    return call(service::name, method, arguments);
  }
  void listen(int id, TransferListener* listener);
  void forget(int id);

  static void hear(GDBusConnection* bus, const gchar* sender, const gchar* path, const gchar* interface,
                   const gchar* signal, GVariant* parameters, gpointer self);

  KbusHandleStruct* const handle;
  GDBusConnection* const bus;
  const std::string path = kbus::objectPath(service::name);
  std::unique_ptr<GMainContext, UnrefContext> context;
  guint subscription = 0;
  std::atomic<bool> stopping{false};
  std::thread thread;  // calls the listeners
  int lastId = 0;
  std::mutex calling;  // held while a listener is called, so that none is after it has been forgotten
  std::map<int, TransferListener*> listeners;
};

bool TransferServiceImpl::State::start() {
  context.reset(g_main_context_new());
  // What is subscribed to now is dispatched in this context.
  g_main_context_push_thread_default(context.get());
  subscription =
      g_dbus_connection_signal_subscribe(bus, service::name, service::name, "Progress", path.c_str(), nullptr,
                                         G_DBUS_SIGNAL_FLAGS_NO_MATCH_RULE, hear, this, nullptr);
  g_main_context_pop_thread_default(context.get());
  const kbus::BlockSignals block;
  try {
    thread = std::thread([this] {
      pthread_setname_np(pthread_self(), "transfers");
      while (!stopping) g_main_context_iteration(context.get(), TRUE);
    });
    return true;
  } catch (const std::system_error&) {
    g_dbus_connection_signal_unsubscribe(bus, subscription);
    return false;
  }
}

void TransferServiceImpl::State::stop() {
  if (!thread.joinable()) return;
  g_dbus_connection_signal_unsubscribe(bus, subscription);
  stopping = true;
  g_main_context_wakeup(context.get());
  thread.join();
}

bool TransferServiceImpl::State::call(const char* interface, const char* method, GVariant* arguments) const {
  GError* failure = nullptr;
  const kbus::Variant reply(g_dbus_connection_call_sync(bus, service::name, path.c_str(), interface, method,
                                                        arguments, nullptr, G_DBUS_CALL_FLAGS_NO_AUTO_START,
                                                        kbus::callTimeoutMilliseconds, nullptr, &failure));
  const kbus::Error error(failure);
  if (!reply) syslog(LOG_ERR, "kbus: %s: %s", service::name, error->message);
  return reply != nullptr;
}

void TransferServiceImpl::State::listen(int id, TransferListener* listener) {
  const std::lock_guard<std::mutex> lock(calling);
  listeners[id] = listener;
}

void TransferServiceImpl::State::forget(int id) {
  const std::lock_guard<std::mutex> lock(calling);
  listeners.erase(id);
}

void TransferServiceImpl::State::hear(GDBusConnection* /*bus*/, const gchar* /*sender*/,
                                      const gchar* /*path*/, const gchar* /*interface*/,
                                      const gchar* /*signal*/, GVariant* parameters, gpointer self) {
  if (g_variant_is_of_type(parameters, G_VARIANT_TYPE("(iiii)")) == FALSE) return;
  Status status;
  g_variant_get(parameters, "(iiii)", &status.id, &status.state, &status.errorCode, &status.deferredCode);
  auto& state = *static_cast<State*>(self);
  const std::lock_guard<std::mutex> lock(state.calling);
  const auto found = state.listeners.find(status.id);
  if (found != state.listeners.end()) found->second->onProgress(&status);
}

TransferServiceImpl::TransferServiceImpl(KbusHandleStruct* bus) : state_(std::make_unique<State>(bus)) {}

TransferServiceImpl::~TransferServiceImpl() {
  state_->stop();
}

bool TransferServiceImpl::initialize() {
  if (state_->thread.joinable()) return true;
  return state_->call("org.freedesktop.DBus.Peer", "Ping", nullptr) && state_->start();
}

Transfer* TransferServiceImpl::initiateTransfer(TransferRequestDescImpl* request) {
  if (!state_->thread.joinable() || request == nullptr) return nullptr;
  const TransferRequestDescImpl::State& wanted = *request->state_;
  if (wanted.sourceAddress == nullptr || wanted.destinationPath == nullptr || wanted.listener == nullptr ||
      wanted.method == nullptr || std::string_view(wanted.method) != "GET") {
    return nullptr;
  }

  auto handle = std::make_unique<Handle>(++state_->lastId);
  state_->listen(handle->id, wanted.listener);
  wanted.listener->setTransfer(handle.get());
  if (state_->call("Initiate",
                   g_variant_new("(i^ay^ay)", handle->id, wanted.sourceAddress, wanted.destinationPath))) {
    return handle.release();
  }
  state_->forget(handle->id);
  // A service that has only been too slow to answer must not go on.
  g_dbus_connection_call(state_->bus, service::name, state_->path.c_str(), service::name, "Finish",
                         g_variant_new("(i)", handle->id), nullptr, G_DBUS_CALL_FLAGS_NO_AUTO_START,
                         kbus::callTimeoutMilliseconds, nullptr, nullptr, nullptr);
  wanted.listener->setTransfer(nullptr);
  return nullptr;
}

int TransferServiceImpl::suspendTransfer(Transfer* /*transfer*/) {
  return -1;  // this service cannot
}

int TransferServiceImpl::finishTransfer(Transfer* transfer, int /*reason*/) {
  const auto* const mine = dynamic_cast<Handle*>(transfer);
  if (mine == nullptr) return -1;
  state_->forget(mine->id);
  return state_->call("Finish", g_variant_new("(i)", mine->id)) ? 0 : -1;
}

}  // namespace xfr
