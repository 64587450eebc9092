#include "download/transfer_wrapper.h"

#include <limits>
#include <stdexcept>

#include "download/transfer_service_wrapper.h"
#include "utils/log.h"
#include "utils/mutex_lock.h"
#include "utils/termination.h"

namespace zelo {

timespec deadlineAfter(timespec now, int seconds) {
  constexpr time_t latest = std::numeric_limits<time_t>::max();
  now.tv_sec = seconds > 0 && now.tv_sec > latest - seconds ? latest : now.tv_sec + seconds;
  return now;
}

TransferWrapper::TransferWrapper(const std::string& source, const std::string& requestMethod,
                                 const std::string& passThroughText, const std::string& destination)
    : sourceAddress(source),
      method(requestMethod),
      passThrough(passThroughText),
      destinationPath(destination) {}

TransferWrapper::~TransferWrapper() {
  request.reset();
  transfer.reset();
  pthread_mutex_destroy(&mutex);
  pthread_cond_destroy(&condition);
}

void TransferWrapper::download(int timeoutSeconds) {
  timespec now{};
  if (clock_gettime(CLOCK_REALTIME, &now) != 0) throw std::runtime_error("clock_gettime failed");
  const timespec deadline = deadlineAfter(now, timeoutSeconds);

  request = std::make_unique<xfr::TransferRequestDescImpl>(
      sourceAddress.c_str(), nullptr, method.c_str(), destinationPath.c_str(), nullptr, 0, nullptr, nullptr,
      SERVICE_NAME, nullptr, sourceAddress.c_str(), nullptr, passThrough.c_str(), 0, 1, "request_download",
      this, false, -1, "");
  xfr::Transfer* const handle = getTransferService()->initiateTransfer(request.get());
  setTransfer(handle);
  if (handle == nullptr) {
    logWarning("W TransferWrapper:download:Initiating transfer failed:");
    throw std::runtime_error("initiating download failed");
  }

  {
    const Wait wait(Wait::event);
    waitForFinalReport(deadline);
  }
  getTransferService()->finishTransfer(getTransfer(), 0);
  passGate();  // the service may have taken so long that the last line has been written

  const MutexLock lock(mutex);
  if (!completed) throw std::runtime_error("download failed");
}

void TransferWrapper::onProgress(xfr::TransferStatus* transferStatus) {
  if (terminationSignal() != 0) return;  // its last line may have been written
  if (transferStatus == nullptr) {
    logWarning("W TransferWrapper:onProgress:transferStatus is NULL:");
    return;
  }
  xfr::Transfer* const handle = getTransfer();
  if (handle == nullptr) {
    logWarning("W TransferWrapper:onProgress:transfer is NULL:");
    return;
  }
  const int id = transferStatus->getId();
  if (id <= 0 || id != handle->getId()) {
    logWarning("W TransferWrapper:onProgress:Invalid id=%d:", id);
    return;
  }

  switch (transferStatus->getState()) {
    case xfr::transferFailed: {
      logWarning("W TransferWrapper:onProgress:transferFailed:error_code=%d", transferStatus->getErrorCode());
      const MutexLock lock(mutex);
      signalFinalReport();
      return;
    }
    case xfr::transferDeferred: {
      logWarning("W TransferWrapper:onProgress:transferDeferred:error_code=%d, deferred_code=%d",
                 transferStatus->getErrorCode(), transferStatus->getDeferredCode());
      if (transferStatus->getDeferredCode() == xfr::deferredForHighPriorityItems) {
        logInfo(
            "I TransferWrapper:onProgress:download deferred due to high priority items. continue monitoring "
            "progress.:");
        return;
      }
      const MutexLock lock(mutex);
      signalFinalReport();
      return;
    }
    case xfr::downloadCompleted: {
      logInfo("I TransferWrapper:onProgress:status=downloadCompleted:");
      // Read again: the library may change the status meanwhile, and its last word counts.
      const bool isCompleted = transferStatus->getState() == xfr::downloadCompleted;
      const MutexLock lock(mutex);
      completed = isCompleted;
      signalFinalReport();
      return;
    }
    default:
      return;
  }
}

void TransferWrapper::setTransfer(xfr::Transfer* handle) {
  const MutexLock lock(mutex);
  (void)transfer.release();  // now the library's again
  transfer.reset(handle);
}

xfr::Transfer* TransferWrapper::getTransfer() {
  const MutexLock lock(mutex);
  return transfer.get();
}

// A final report that came before the wait counts too.
void TransferWrapper::waitForFinalReport(const timespec& deadline) {
  const MutexLock lock(mutex);
  int result = 0;
  while (!ended && result == 0) result = pthread_cond_timedwait(&condition, &mutex, &deadline);
}

void TransferWrapper::signalFinalReport() {
  ended = true;
  pthread_cond_signal(&condition);
}

}  // namespace zelo
