#pragma once

#include <string>

namespace zelo {

/// Percent-encodes all bytes except ASCII letters, digits and "-._~". Throws `std::runtime_error` "could not
/// create curl handle" or "could not url encode string".
[[nodiscard]] std::string urlEncode(const std::string& text);

}  // namespace zelo
