#include "download/address_policy.h"

#include <libsoup/soup-uri.h>

#include <algorithm>
#include <memory>
#include <regex>

bool isAddressNotAllowed(const std::string& address) {
  const std::unique_ptr<SoupURI, decltype(&soup_uri_free)> uri(soup_uri_new(address.c_str()), soup_uri_free);
  if (!uri) return true;

  const char* hostText = soup_uri_get_host(uri.get());
  if (hostText == nullptr || *hostText == '\0') return true;  // or clients look for a host in the path
  const std::string scheme = soup_uri_get_scheme(uri.get());
  std::string host = hostText;
  std::transform(host.begin(), host.end(), host.begin(),
                 [](char c) { return static_cast<char>(toLowerAscii(c)); });

  const bool wrongScheme = scheme != "https";
  const bool localName = host == "localhost" || host == "localhost.localdomain";
  const bool loopbackLiteral = isLoopbackIPv4(host);
  return wrongScheme || localName || loopbackLiteral;
}

bool isLoopbackIPv4(const std::string& host) {
  const std::regex dottedNumbers(R"(^(\d{1,3})\.(\d{1,3})\.(\d{1,3})\.(\d{1,3})$)");
  std::smatch match;
  return std::regex_match(host, match, dottedNumbers) && match[1] == "127";
}

int toLowerAscii(int character) {
  return character >= 'A' && character <= 'Z' ? character - 'A' + 'a' : character;
}
