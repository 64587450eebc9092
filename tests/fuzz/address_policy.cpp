// An accepted address is, for the parser itself, https to a host that is none of the three.
#include <arpa/inet.h>
#include <libsoup/soup-uri.h>

#include <cstdlib>
#include <memory>
#include <string>

#include "download/address_policy.h"

extern "C" int LLVMFuzzerTestOneInput(const char* data, std::size_t size) {
  const std::string text(data, size);
  if (isAddressNotAllowed(text)) return 0;
  const std::unique_ptr<SoupURI, decltype(&soup_uri_free)> uri(soup_uri_new(text.c_str()), soup_uri_free);
  const std::string host = uri->host;
  in_addr number{};
  const bool loopback = inet_pton(AF_INET, host.c_str(), &number) == 1 && ntohl(number.s_addr) >> 24U == 127;
  const bool local = !g_ascii_strcasecmp(host.c_str(), "localhost") ||
                     !g_ascii_strcasecmp(host.c_str(), "localhost.localdomain");
  if (std::string(uri->scheme) != "https" || host.empty() || loopback || local) std::abort();
  return 0;
}
