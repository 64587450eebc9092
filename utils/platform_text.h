#pragma once

#include <cstdlib>
#include <memory>

namespace zelo {

/// Releases with the C library's `free`.
struct FreeDeleter {
  void operator()(char* text) const noexcept { std::free(text); }
};

/// A text that a library allocated for its caller, who releases it with `free`.
using PlatformText = std::unique_ptr<char, FreeDeleter>;

}  // namespace zelo
