#include "download/transfer_wrapper.h"

#include <limits>
#include <stdexcept>

#include "download/transfer_service_wrapper.h"
#include "utils/log.h"

namespace zelo {

class TransferWrapper::Lock {
 public:
  explicit Lock(pthread_mutex_t& mutex) : mutex_(mutex) { pthread_mutex_lock(&mutex_); }
  Lock(const Lock&) = delete;
  Lock& operator=(const Lock&) = delete;
  ~Lock() { pthread_mutex_unlock(&mutex_); }

 private:
  pthread_mutex_t& mutex_;
};

timespec deadlineAfter(timespec now, int seconds) {
  constexpr time_t latest = std::numeric_limits<time_t>::max();
  now.tv_sec = seconds > 0 && now.tv_sec > latest - seconds ? latest : now.tv_sec + seconds;
  return now;
}

TransferWrapper::TransferWrapper(const std::string& sourceAddress, const std::string& method,
                                 const std::string& passThrough, const std::string& destinationPath)
    : sourceAddress_(sourceAddress),
      method_(method),
      passThrough_(passThrough),
      destinationPath_(destinationPath) {}

TransferWrapper::~TransferWrapper() {
  request_.reset();
  transfer_.reset();
  pthread_mutex_destroy(&mutex_);
  pthread_cond_destroy(&condition_);
}

void TransferWrapper::download(int timeoutSeconds) {
  timespec now{};
  if (clock_gettime(CLOCK_REALTIME, &now) != 0) throw std::runtime_error("clock_gettime failed");
  const timespec deadline = deadlineAfter(now, timeoutSeconds);

  request_ = std::make_unique<xfr::TransferRequestDescImpl>(
      sourceAddress_.c_str(), nullptr, method_.c_str(), destinationPath_.c_str(), nullptr, 0, nullptr,
      nullptr, SERVICE_NAME, nullptr, sourceAddress_.c_str(), nullptr, passThrough_.c_str(), 0, 1,
      "request_download", this, false, -1, "");
  xfr::Transfer* const transfer = getTransferService()->initiateTransfer(request_.get());
  setTransfer(transfer);
  if (transfer == nullptr) {
    logWarning("W TransferWrapper:download:Initiating transfer failed:");
    throw std::runtime_error("initiating download failed");
  }

  waitForEnd(deadline);
  getTransferService()->finishTransfer(getTransfer(), 0);

  const Lock lock(mutex_);
  if (!completed_) throw std::runtime_error("download failed");
}

void TransferWrapper::onProgress(xfr::TransferStatus* transferStatus) {
  if (transferStatus == nullptr) {
    logWarning("W TransferWrapper:onProgress:transferStatus is NULL:");
    return;
  }
  xfr::Transfer* const transfer = getTransfer();
  if (transfer == nullptr) {
    logWarning("W TransferWrapper:onProgress:transfer is NULL:");
    return;
  }
  const int id = transferStatus->getId();
  if (id <= 0 || id != transfer->getId()) {
    logWarning("W TransferWrapper:onProgress:Invalid id=%d:", id);
    return;
  }

  switch (transferStatus->getState()) {
    case xfr::transferFailed:
      logWarning("W TransferWrapper:onProgress:transferFailed:error_code=%d", transferStatus->getErrorCode());
      signalEnd();
      return;
    case xfr::transferDeferred:
      logWarning("W TransferWrapper:onProgress:transferDeferred:error_code=%d, deferred_code=%d",
                 transferStatus->getErrorCode(), transferStatus->getDeferredCode());
      if (transferStatus->getDeferredCode() != xfr::deferredForHighPriorityItems) {
        signalEnd();
        return;
      }
      logInfo(
          "I TransferWrapper:onProgress:download deferred due to high priority items. continue monitoring "
          "progress.:");
      return;
    case xfr::downloadCompleted: {
      logInfo("I TransferWrapper:onProgress:status=downloadCompleted:");
      const bool completed = transferStatus->getState() == xfr::downloadCompleted;
      {
        const Lock lock(mutex_);
        completed_ = completed;
      }
      signalEnd();
      return;
    }
    default:
      return;
  }
}

void TransferWrapper::setTransfer(xfr::Transfer* transfer) {
  std::unique_ptr<xfr::Transfer> superseded;  // destroyed behind the lock
  const Lock lock(mutex_);
  if (transfer_.get() == transfer) return;
  superseded = std::move(transfer_);
  transfer_.reset(transfer);
}

xfr::Transfer* TransferWrapper::getTransfer() {
  const Lock lock(mutex_);
  return transfer_.get();
}

// An end that was reported before the wait began counts as well.
void TransferWrapper::waitForEnd(const timespec& deadline) {
  const Lock lock(mutex_);
  int result = 0;
  while (!ended_ && result == 0) result = pthread_cond_timedwait(&condition_, &mutex_, &deadline);
}

void TransferWrapper::signalEnd() {
  const Lock lock(mutex_);
  ended_ = true;
  pthread_cond_signal(&condition_);
}

}  // namespace zelo
