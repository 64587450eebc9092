#include "standin/http_download.h"

#include <fcntl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <utility>

namespace xfr {
namespace {

constexpr const char* trustedAuthorities = "/etc/ssl/certs/ca-certificates.crt";
constexpr int maxRedirects = 10;
constexpr long connectSeconds = 30;
constexpr long stalledSeconds = 30;
constexpr int pollMilliseconds = 1000;
constexpr mode_t ownerOnly = 0600;
static_assert(sizeof(off_t) == 8, "a file may be larger than 2 GiB");

curl_socket_t openSocket(void* /*unused*/, curlsocktype /*purpose*/, curl_sockaddr* address) {
  return socket(address->family, address->socktype | SOCK_CLOEXEC, address->protocol);
}

bool writeAll(int fd, const char* data, size_t length) {
  while (length > 0) {
    const ssize_t count = write(fd, data, length);
    if (count < 0 && errno != EINTR) return false;
    if (count > 0) {
      data += count;
      length -= static_cast<size_t>(count);
    }
  }
  return true;
}

bool isSuccess(long status) {
  return status >= 200 && status < 300;
}

}  // namespace

HttpDownload::HttpDownload(std::shared_ptr<const CurlLibrary> library, std::string address,
                           std::string destination)
    : library_(std::move(library)),
      address_(std::move(address)),
      destination_(std::move(destination)),
      multi_(curl_multi_init(), curl_multi_cleanup),
      easy_(curl_easy_init(), curl_easy_cleanup) {}

int HttpDownload::run() {
  if (!multi_ || !easy_ || !setOptions()) return CURLE_OUT_OF_MEMORY;
  const int flags = O_WRONLY | O_CREAT | O_TRUNC | O_NOFOLLOW | O_CLOEXEC;
  file_ = zelo::FileDescriptor(open(destination_.c_str(), flags, ownerOnly));
  if (!file_.valid()) return CURLE_WRITE_ERROR;

  for (int redirects = 0; redirects <= maxRedirects; ++redirects) {
    const CURLcode result = perform();
    if (result == CURLE_HTTP_RETURNED_ERROR) return static_cast<int>(status());
    if (result != CURLE_OK) return result;
    if (isSuccess(status())) return file_.close() ? succeeded : CURLE_WRITE_ERROR;

    const char* next = nullptr;
    curl_easy_getinfo(easy_.get(), CURLINFO_REDIRECT_URL, &next);
    if (next == nullptr) return static_cast<int>(status());
    // Once protected, the way to the file stays protected.
    const char* scheme = nullptr;
    curl_easy_getinfo(easy_.get(), CURLINFO_SCHEME, &scheme);
    const bool isOpen = scheme != nullptr && strcasecmp(scheme, "http") == 0;
    if (!isOpen && curl_easy_setopt(easy_.get(), CURLOPT_PROTOCOLS_STR, "https") != CURLE_OK) {
      return CURLE_OUT_OF_MEMORY;
    }
    if (curl_easy_setopt(easy_.get(), CURLOPT_URL, next) != CURLE_OK) return CURLE_OUT_OF_MEMORY;
  }
  return CURLE_TOO_MANY_REDIRECTS;
}

void HttpDownload::cancel() {
  cancelled_ = true;
  if (multi_) curl_multi_wakeup(multi_.get());
}

bool HttpDownload::setOptions() {
  CURL* easy = easy_.get();
  return curl_easy_setopt(easy, CURLOPT_URL, address_.c_str()) == CURLE_OK &&
         curl_easy_setopt(easy, CURLOPT_PROTOCOLS_STR, "http,https") == CURLE_OK &&
         curl_easy_setopt(easy, CURLOPT_PROXY, "") == CURLE_OK &&
         curl_easy_setopt(easy, CURLOPT_CAINFO, trustedAuthorities) == CURLE_OK &&
         curl_easy_setopt(easy, CURLOPT_CAPATH, nullptr) == CURLE_OK &&
         // Else a cancelled download would wait for the answer of its name server.
         curl_easy_setopt(easy, CURLOPT_QUICK_EXIT, 1L) == CURLE_OK &&
         curl_easy_setopt(easy, CURLOPT_NOSIGNAL, 1L) == CURLE_OK &&
         curl_easy_setopt(easy, CURLOPT_FAILONERROR, 1L) == CURLE_OK &&
         curl_easy_setopt(easy, CURLOPT_CONNECTTIMEOUT, connectSeconds) == CURLE_OK &&
         curl_easy_setopt(easy, CURLOPT_LOW_SPEED_LIMIT, 1L) == CURLE_OK &&
         curl_easy_setopt(easy, CURLOPT_LOW_SPEED_TIME, stalledSeconds) == CURLE_OK &&
         curl_easy_setopt(easy, CURLOPT_OPENSOCKETFUNCTION, openSocket) == CURLE_OK &&
         curl_easy_setopt(easy, CURLOPT_WRITEFUNCTION, receive) == CURLE_OK &&
         curl_easy_setopt(easy, CURLOPT_WRITEDATA, this) == CURLE_OK;
}

CURLcode HttpDownload::perform() {
  CURLcode result = CURLE_ABORTED_BY_CALLBACK;
  if (curl_multi_add_handle(multi_.get(), easy_.get()) != CURLM_OK) return CURLE_OUT_OF_MEMORY;
  int running = 1;
  while (running > 0 && !cancelled_) {
    if (curl_multi_perform(multi_.get(), &running) != CURLM_OK) break;
    if (running > 0) curl_multi_poll(multi_.get(), nullptr, 0, pollMilliseconds, nullptr);
  }
  int queued = 0;
  if (const CURLMsg* message = curl_multi_info_read(multi_.get(), &queued)) result = message->data.result;
  curl_multi_remove_handle(multi_.get(), easy_.get());
  return result;
}

long HttpDownload::status() const {
  long status = 0;
  curl_easy_getinfo(easy_.get(), CURLINFO_RESPONSE_CODE, &status);
  return status;
}

size_t HttpDownload::receive(char* data, size_t size, size_t count, void* self) {
  const auto& download = *static_cast<const HttpDownload*>(self);
  const size_t length = size * count;
  // What comes with a redirect is not the file.
  if (!isSuccess(download.status())) return length;
  return writeAll(download.file_.get(), data, length) ? length : 0;
}

}  // namespace xfr
