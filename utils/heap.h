#pragma once

namespace zelo {

/// Gives the process one heap for all its threads, with room from the start: libraries abort the process
/// when a few bytes are not to be had, and a thread's own heap can fail while there is memory left.
/// Throws `std::bad_alloc` when the room cannot be had.
void reserveHeap();

}  // namespace zelo
