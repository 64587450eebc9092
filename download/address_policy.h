#pragma once

#include <string>

/// Which bundle addresses are acceptable: "https" only, no local host name, no dotted IPv4 address in
/// the 127 range. Pure functions; no text makes them throw.

/// True when the address is refused, also when it cannot be parsed or names no host.
[[nodiscard]] bool isAddressNotAllowed(const std::string& address);

/// True for four dotted numbers of up to three digits, the first being 127; the others may be of any
/// size.
[[nodiscard]] bool isLoopbackIPv4(const std::string& host);

/// Maps 'A' to 'Z' and nothing else, whatever the locale.
[[nodiscard]] int toLowerAscii(int character);
