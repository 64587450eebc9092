#include "utils/url_encode.h"

#include <curl/curl.h>

#include <memory>
#include <stdexcept>

namespace zelo {

std::string urlEncode(const std::string& text) {
  const std::unique_ptr<CURL, decltype(&curl_easy_cleanup)> handle(curl_easy_init(), curl_easy_cleanup);
  if (!handle) throw std::runtime_error("could not create curl handle");

  const std::unique_ptr<char, decltype(&curl_free)> encoded(
      curl_easy_escape(handle.get(), text.c_str(), static_cast<int>(text.size())), curl_free);
  if (!encoded) throw std::runtime_error("could not url encode string");
  return encoded.get();
}

}  // namespace zelo
