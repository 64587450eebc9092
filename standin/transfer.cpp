#include "standin/transfer.h"

#include <malloc.h>

#include <csignal>
#include <system_error>
#include <utility>

namespace xfr {
namespace {

constexpr int transferring = 4;

// What stays at the end of the heap, for whoever cannot do without a few bytes.
constexpr size_t keptRoom = 1 << 20;

struct Status final : TransferStatus {
  Status(int idValue, int stateValue, int errorCodeValue)
      : id(idValue), state(stateValue), errorCode(errorCodeValue) {}
  int getId() override { return id; }
  int getState() override { return state; }
  int getErrorCode() override { return errorCode; }
  int getDeferredCode() override { return 0; }

  int id;
  int state;
  int errorCode;
};

/// Blocks signals: a thread started meanwhile has them blocked from birth. They are the process's
/// business, and a connection that breaks while it is written to must not end the process. All but
/// those of a fault: blocked, they would end the process without its crash dump.
class BlockSignals {
 public:
  BlockSignals() {
    sigset_t most;
    sigfillset(&most);
    for (const int fault : {SIGSEGV, SIGBUS, SIGILL, SIGFPE, SIGSYS, SIGTRAP}) sigdelset(&most, fault);
    pthread_sigmask(SIG_SETMASK, &most, &before_);
  }
  BlockSignals(const BlockSignals&) = delete;
  BlockSignals& operator=(const BlockSignals&) = delete;
  ~BlockSignals() { pthread_sigmask(SIG_SETMASK, &before_, nullptr); }

 private:
  sigset_t before_{};
};

}  // namespace

HttpTransfer::HttpTransfer(std::shared_ptr<const CurlLibrary> library, int id, const std::string& address,
                           const std::string& destination, TransferListener& listener)
    : id_(id), listener_(listener), download_(std::in_place, std::move(library), address, destination) {}

HttpTransfer::~HttpTransfer() {
  finish();
  download_.reset();
  (void)malloc_trim(keptRoom);  // the process may run a script for hours from here on
}

bool HttpTransfer::start() {
  const BlockSignals block;
  try {
    thread_ = std::thread([this] { run(); });
    return true;
  } catch (const std::system_error&) {
    return false;
  }
}

void HttpTransfer::finish() {
  finishing_ = true;
  download_->cancel();
  if (thread_.joinable()) thread_.join();
}

void HttpTransfer::run() {
  report(transferring, 0);
  const int result = download_->run();
  report(result == HttpDownload::succeeded ? downloadCompleted : transferFailed, result);
}

void HttpTransfer::report(int state, int errorCode) {
  if (finishing_) return;
  Status status(id_, state, errorCode);
  listener_.onProgress(&status);
}

}  // namespace xfr
