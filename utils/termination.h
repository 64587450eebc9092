#pragma once

#include <ctime>

/// How a termination signal ends the daemon without cutting short what it is doing.
///
/// The main thread either acts or waits (for a pause, a download or a program). Once a signal has been noted,
/// it neither begins a wait nor returns from one, so nothing new begins after the first wait that it reaches.
namespace zelo {

/// Remembers the first termination signal; true if this is the first. Async-signal-safe, on any thread.
[[nodiscard]] bool noteTerminationSignal(int signum) noexcept;

/// The termination signal that was noted, 0 before there is one. Async-signal-safe.
[[nodiscard]] int terminationSignal() noexcept;

/// For the main thread. Returns, unless a termination signal has been noted: then it waits for the end.
void passGate() noexcept;

/// The main thread waits for as long as one of these lives, except while a program is being started. Neither
/// the constructor nor the destructor returns once a termination signal has been noted.
class Wait {
 public:
  enum For { event, program };

  explicit Wait(For what) noexcept;
  Wait(const Wait&) = delete;
  Wait& operator=(const Wait&) = delete;
  ~Wait();

  /// To be called when the program has started. Until then the main thread counts as acting.
  void programRuns() noexcept;
};

/// Returns when the main thread waits, or at the deadline (CLOCK_MONOTONIC).
void awaitIdleMainThread(const timespec& deadline) noexcept;

/// Returns when no program is being started or waited for.
void awaitNoProgram() noexcept;

}  // namespace zelo
