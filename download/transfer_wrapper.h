#pragma once

#include <pthread.h>

#include <ctime>
#include <memory>
#include <string>

#include "platform/xfr.h"

namespace zelo {

/// The request method of every download.
inline constexpr const char* REQUEST_METHOD = "GET";

/// One blocking download of an address to a file; receives the transfer service's reports about it.
class TransferWrapper : public xfr::TransferListener {
 public:
  /// Downloads `source` to the file `destination`, an absolute path; `passThroughText` goes to the transfer
  /// service unchanged. The constructor only copies the texts.
  TransferWrapper(const std::string& source, const std::string& requestMethod,
                  const std::string& passThroughText, const std::string& destination);
  TransferWrapper(const TransferWrapper&) = delete;
  TransferWrapper& operator=(const TransferWrapper&) = delete;

  /// Submits the request and waits for the service's final report, at most `timeoutSeconds` from the call.
  /// Returns if that report was completion; otherwise throws `std::runtime_error` "clock_gettime failed",
  /// "initiating download failed" or "download failed". What was written to the destination stays there. Call
  /// it once per object.
  void download(int timeoutSeconds);

  /// Receives a report, on a thread of the transfer library. A report is logged and ignored if it has no
  /// status, comes before the handle is known, or has another id than the handle.
  void onProgress(xfr::TransferStatus* transferStatus) override;

  /// Stores the handle, which this object owns while it is stored. The handle that it replaces is the
  /// library's again. Null stores none.
  void setTransfer(xfr::Transfer* handle) override;

  /// The stored handle, or null if none is known.
  [[nodiscard]] xfr::Transfer* getTransfer() override;

  ~TransferWrapper() override;

 private:
  void waitForFinalReport(const timespec& deadline);
  void signalFinalReport();  // with the mutex held

  const std::string sourceAddress;
  const std::string method;
  const std::string passThrough;
  const std::string destinationPath;
  // pthread's types, because their default clock is the realtime clock, which the deadline needs.
  pthread_mutex_t mutex = PTHREAD_MUTEX_INITIALIZER;
  pthread_cond_t condition = PTHREAD_COND_INITIALIZER;
  std::unique_ptr<xfr::TransferRequestDescImpl> request;
  // Reports arrive on a thread of the transfer library; the mutex guards what both threads use.
  std::unique_ptr<xfr::Transfer> transfer;
  bool completed = false;
  bool ended = false;
};

/// `now` plus `seconds`, or the latest time that a time_t can hold.
[[nodiscard]] timespec deadlineAfter(timespec now, int seconds);

}  // namespace zelo
