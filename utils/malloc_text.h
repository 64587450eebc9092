#pragma once

#include <cstdlib>
#include <memory>

namespace zelo {

/// Releases with the C library's `free`.
struct Free {
  void operator()(char* text) const noexcept { std::free(text); }
};

/// A text that a library allocated for its caller, who releases it with `free`.
using MallocText = std::unique_ptr<char, Free>;

}  // namespace zelo
