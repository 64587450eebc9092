#include <string_view>
#include <utility>

#include "standin/transfer.h"
#include "platform/xfr.h"

namespace xfr {

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
  std::shared_ptr<const CurlLibrary> library;  // null until the client is ready
  int lastId = 0;
};

TransferServiceImpl::TransferServiceImpl(KbusHandleStruct* /*bus*/) : state_(std::make_unique<State>()) {}

TransferServiceImpl::~TransferServiceImpl() = default;

bool TransferServiceImpl::initialize() {
  if (state_->library) return true;
  auto library = std::make_shared<const CurlLibrary>();
  if (!library->ready()) return false;
  state_->library = std::move(library);
  return true;
}

Transfer* TransferServiceImpl::initiateTransfer(TransferRequestDescImpl* request) {
  if (!state_->library || request == nullptr) return nullptr;
  const TransferRequestDescImpl::State& wanted = *request->state_;
  if (wanted.sourceAddress == nullptr || wanted.destinationPath == nullptr || wanted.listener == nullptr ||
      wanted.method == nullptr || std::string_view(wanted.method) != "GET") {
    return nullptr;
  }

  auto transfer = std::make_unique<HttpTransfer>(state_->library, ++state_->lastId, wanted.sourceAddress,
                                                 wanted.destinationPath, *wanted.listener);
  HttpTransfer* const handle = transfer.release();
  wanted.listener->setTransfer(handle);  // the owner from here on
  if (handle->start()) return handle;
  wanted.listener->setTransfer(nullptr);
  return nullptr;
}

int TransferServiceImpl::suspendTransfer(Transfer* /*transfer*/) {
  return -1;
}

int TransferServiceImpl::finishTransfer(Transfer* transfer, int /*reason*/) {
  auto* const mine = dynamic_cast<HttpTransfer*>(transfer);
  if (mine == nullptr) return -1;
  mine->finish();
  return 0;
}

}  // namespace xfr
