#pragma once

#include <string>

/// Decides which bundle addresses are acceptable: https only, no local host name, no dotted IPv4 address in
/// 127.0.0.0/8. Pure functions; no text makes them throw.

/// True if the address is refused; also if it cannot be parsed or names no host.
[[nodiscard]] bool isAddressNotAllowed(const std::string& address);

/// True for four dotted numbers of up to three digits, of which the first is 127; the others may exceed 255.
[[nodiscard]] bool isLoopbackIPv4(const std::string& host);

/// Maps only 'A' to 'Z', in any locale.
[[nodiscard]] int toLowerAscii(int character);
