#pragma once

#include <mutex>

namespace zelo {

/// Remembers a termination signal. True for the first one only. Async-signal-safe.
[[nodiscard]] bool noteTerminationSignal(int signum) noexcept;

/// The first termination signal that arrived, 0 before there is one. Async-signal-safe.
[[nodiscard]] int terminationSignal() noexcept;

/// Blocks the calling thread until the process ends.
[[noreturn]] void awaitEnd() noexcept;

/// Keeps the end of the process and the programs that it starts apart: once a termination signal has
/// arrived no program is started any more, and the process ends only when none is running.
///
/// Held from before a program is started until it has been reaped. Once a termination signal has
/// arrived, neither the constructor nor `leave` returns.
class ProgramGate {
 public:
  ProgramGate();

  /// To be called after a program has ended and before its ending is looked at: a program that was
  /// ended by the signal that ends the daemon must not count as a success.
  void leave();

 private:
  std::unique_lock<std::mutex> lock;
};

/// Waits until no program is running and keeps the gate shut for good.
void shutProgramGate();

}  // namespace zelo
