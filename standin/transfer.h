#pragma once

#include <atomic>
#include <memory>
#include <optional>
#include <string>
#include <thread>

#include "standin/http_download.h"
#include "platform/xfr.h"

namespace xfr {

/// A download on a thread of its own that reports to its listener.
class HttpTransfer final : public Transfer {
 public:
  HttpTransfer(std::shared_ptr<const CurlLibrary> library, int id, const std::string& address,
               const std::string& destination, TransferListener& listener);
  HttpTransfer(const HttpTransfer&) = delete;
  HttpTransfer& operator=(const HttpTransfer&) = delete;
  ~HttpTransfer() override;

  const int& getId() override { return id_; }

  /// False when the thread cannot be started; no report comes then.
  [[nodiscard]] bool start();

  /// Ends the download if it is still running. No report comes once this has returned.
  void finish();

 private:
  void run();
  void report(int state, int errorCode);

  const int id_;
  TransferListener& listener_;
  std::optional<HttpDownload> download_;
  std::atomic<bool> finishing_{false};
  std::thread thread_;
};

}  // namespace xfr
