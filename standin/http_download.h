#pragma once

#include <curl/curl.h>

#include <atomic>
#include <memory>
#include <string>

#include "utils/file_descriptor.h"

namespace xfr {

/// Keeps libcurl ready for as long as it lives. Shared by all who use it, whoever goes last.
class CurlLibrary {
 public:
  CurlLibrary() = default;
  CurlLibrary(const CurlLibrary&) = delete;
  CurlLibrary& operator=(const CurlLibrary&) = delete;
  ~CurlLibrary() {
    if (ready_) curl_global_cleanup();
  }

  [[nodiscard]] bool ready() const { return ready_; }

 private:
  const bool ready_ = curl_global_init(CURL_GLOBAL_DEFAULT) == CURLE_OK;
};

/// Downloads one address into one file.
class HttpDownload {
 public:
  static constexpr int succeeded = 0;

  HttpDownload(std::shared_ptr<const CurlLibrary> library, std::string address, std::string destination);
  HttpDownload(const HttpDownload&) = delete;
  HttpDownload& operator=(const HttpDownload&) = delete;

  /// Returns when the file is complete and closed, or the download has failed: `succeeded`, the HTTP
  /// status of a response that is not the file, or the library's error code. To be called once.
  [[nodiscard]] int run();

  /// Makes `run` return soon. From any thread.
  void cancel();

 private:
  [[nodiscard]] bool setOptions();
  [[nodiscard]] CURLcode perform();
  [[nodiscard]] long status() const;
  static size_t receive(char* data, size_t size, size_t count, void* self);

  const std::shared_ptr<const CurlLibrary> library_;  // before all that needs it
  const std::string address_;
  const std::string destination_;
  const std::unique_ptr<CURLM, decltype(&curl_multi_cleanup)> multi_;
  const std::unique_ptr<CURL, decltype(&curl_easy_cleanup)> easy_;
  std::atomic<bool> cancelled_{false};
  zelo::FileDescriptor file_;
};

}  // namespace xfr
