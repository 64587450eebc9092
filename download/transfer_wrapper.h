#pragma once

#include <pthread.h>

#include <ctime>
#include <memory>
#include <string>

#include "platform/xfr.h"

namespace zelo {

/// The request method of every download.
inline constexpr const char* REQUEST_METHOD = "GET";

/// One blocking download of one address into one file; hears the transfer service's reports about it.
class TransferWrapper : public xfr::TransferListener {
 public:
  /// `source` is downloaded into the file `destination`, an absolute path; `passThroughText` goes to the
  /// transfer service unchanged. Copies the texts; nothing else happens yet.
  TransferWrapper(const std::string& source, const std::string& requestMethod,
                  const std::string& passThroughText, const std::string& destination);
  TransferWrapper(const TransferWrapper&) = delete;
  TransferWrapper& operator=(const TransferWrapper&) = delete;

  /// Hands the request to the transfer service and waits until it reports an end or `timeoutSeconds`
  /// have passed since the call. Returns when the service has reported completion. Throws
  /// `std::runtime_error` "clock_gettime failed", "initiating download failed" or "download failed".
  /// At most one call for each object. Whatever has been written to the destination stays there.
  void download(int timeoutSeconds);

  /// Hears one report; called on the transfer library's own thread. Reports without a status, before the
  /// handle is known, or with another id than the handle's are logged and ignored.
  void onProgress(xfr::TransferStatus* transferStatus) override;

  /// Stores the handle, which belongs to this object while it is stored. What it replaces belongs to the
  /// library again; null replaces it by nothing.
  void setTransfer(xfr::Transfer* handle) override;

  /// The stored handle; null before the service's handle is known.
  [[nodiscard]] xfr::Transfer* getTransfer() override;

  ~TransferWrapper() override;

 private:
  void waitForFinalReport(const timespec& deadline);
  void signalFinalReport();  // with the mutex held

  const std::string sourceAddress;
  const std::string method;
  const std::string passThrough;
  const std::string destinationPath;
  // pthread's own types: the deadline is measured by the realtime clock that their defaults name.
  pthread_mutex_t mutex = PTHREAD_MUTEX_INITIALIZER;
  pthread_cond_t condition = PTHREAD_COND_INITIALIZER;
  std::unique_ptr<xfr::TransferRequestDescImpl> request;
  // The reports arrive on a thread of the transfer library; the mutex guards what both threads use.
  std::unique_ptr<xfr::Transfer> transfer;
  bool completed = false;
  bool ended = false;
};

/// `now` plus `seconds`, as far as time_t can count.
[[nodiscard]] timespec deadlineAfter(timespec now, int seconds);

}  // namespace zelo
