#pragma once

namespace zelo {

/// Libraries that the daemon uses end the process by a signal when they cannot have a few bytes, be it in
/// threads of their own. So all threads share one heap, and it gets its room at the start. Throws
/// `std::bad_alloc` when that cannot be had.
void reserveHeap();

}  // namespace zelo
