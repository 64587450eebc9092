// An accepted address must pass this reading of it, which shares nothing with the policy's.
#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <string>

#include "download/address_policy.h"

namespace {

using std::string;

char lower(char c) {
  return c >= 'A' && c <= 'Z' ? static_cast<char>(c | 0x20) : c;
}

int hex(char c) {
  const string digits = "0123456789abcdef";
  const std::size_t at = digits.find(lower(c));
  return at == string::npos ? -1 : static_cast<int>(at);
}

// The host as a client reads it: behind the user, before the port, escapes undone, in lower case.
string hostOf(const string& address) {
  const std::size_t begin = address.find("//");
  if (begin == string::npos) return "";
  string authority = address.substr(begin + 2, address.find_first_of("/?#", begin + 2) - begin - 2);
  authority.erase(0, authority.find('@') + 1);
  if (!authority.empty() && authority.front() != '[')
    authority.erase(std::min(authority.find(':'), authority.size()));
  string host;
  for (std::size_t i = 0; i < authority.size(); ++i) {
    const bool escape = authority[i] == '%' && i + 2 < authority.size() && hex(authority[i + 1]) >= 0 &&
                        hex(authority[i + 2]) >= 0;
    host +=
        lower(escape ? static_cast<char>(hex(authority[i + 1]) * 16 + hex(authority[i + 2])) : authority[i]);
    if (escape) i += 2;
  }
  return host.substr(0, host.find('\0'));
}

bool isLoopback(const string& host) {
  int groups = 0;
  std::size_t digits = 0;
  for (const char c : host + ".") {
    if (c == '.') {
      if (digits < 1 || digits > 3) return false;
      ++groups;
      digits = 0;
    } else if (c >= '0' && c <= '9') {
      ++digits;
    } else {
      return false;
    }
  }
  return groups == 4 && host.compare(0, 4, "127.") == 0;
}

// What parsers drop before they begin: white space around, tabs and line breaks inside.
string cleaned(const string& text) {
  const string white = " \t\n\r\f\v";
  const std::size_t begin = text.find_first_not_of(white);
  if (begin == string::npos) return "";
  string result;
  for (const char c : text.substr(begin, text.find_last_not_of(white) - begin + 1)) {
    if (c != '\t' && c != '\n' && c != '\r') result += c;
  }
  return result;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const string text(string(reinterpret_cast<const char*>(data), size).c_str());
  if (isAddressNotAllowed(text)) return 0;
  const string address = cleaned(text);
  string scheme = address.substr(0, address.find(':'));
  for (char& c : scheme) c = lower(c);
  const string host = hostOf(address);
  if (scheme != "https" || host.empty() || host == "localhost" || host == "localhost.localdomain" ||
      isLoopback(host))
    std::abort();
  return 0;
}
