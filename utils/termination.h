#pragma once

#include <ctime>

/// How a termination signal ends the daemon without tearing what it is doing.
///
/// The main thread either acts or waits: for a pause, a download or a program. Once a signal has been
/// noted, it neither returns from a wait nor begins another one. Once it waits, nothing new can begin.
namespace zelo {

/// Remembers a termination signal. True for the first one only. Async-signal-safe, on any thread.
[[nodiscard]] bool noteTerminationSignal(int signum) noexcept;

/// The termination signal that was noted, 0 before there is one. Async-signal-safe.
[[nodiscard]] int terminationSignal() noexcept;

/// Makes the main thread wait until the process ends.
[[noreturn]] void parkForever() noexcept;

/// The main thread waits for as long as one of these lives. Neither the constructor nor the destructor
/// returns once a termination signal has been noted.
class Wait {
 public:
  enum For { event, program };

  explicit Wait(For what) noexcept;
  Wait(const Wait&) = delete;
  Wait& operator=(const Wait&) = delete;
  ~Wait();

  /// Until then a program that is waited for counts as being started, which is acting.
  void programRuns() noexcept;
};

/// Returns when the main thread waits, at the latest at the deadline on CLOCK_MONOTONIC.
void awaitIdleMainThread(const timespec& deadline) noexcept;

/// Returns when no program is being started or waited for.
void awaitNoProgram() noexcept;

}  // namespace zelo
