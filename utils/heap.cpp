#include "utils/heap.h"

#include <malloc.h>

#include <cstdlib>
#include <new>

namespace zelo {
namespace {

constexpr int room = 2 << 20;

// More than a heap has left when it starts, less than what gets a mapping of its own.
constexpr std::size_t growingSize = 120 << 10;

}  // namespace

void reserveHeap() {
  // NOLINTBEGIN(concurrency-mt-unsafe): there is one thread yet
  (void)mallopt(M_ARENA_MAX, 1);
  (void)mallopt(M_TOP_PAD, room);
  // NOLINTEND(concurrency-mt-unsafe)
  void* volatile growing = std::malloc(growingSize);  // volatile: or the compiler leaves it out
  if (growing == nullptr) throw std::bad_alloc();
  std::free(growing);
}

}  // namespace zelo
