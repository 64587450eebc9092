#pragma once

#include <cstdlib>
#include <memory>

namespace zelo {

/// Releases with the C library's `free`.
struct Free {
  void operator()(char* text) const noexcept { std::free(text); }
};

/// Owns a text that a library allocated with `malloc` for its caller.
using MallocText = std::unique_ptr<char, Free>;

}  // namespace zelo
