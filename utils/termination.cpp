#include "utils/termination.h"

#include <unistd.h>

#include <atomic>

namespace zelo {
namespace {

std::atomic<int> firstSignal{0};
static_assert(std::atomic<int>::is_always_lock_free, "a signal handler sets it");

// Locked while a program runs, and for good once the gate is shut.
std::mutex programRunning;

}  // namespace

bool noteTerminationSignal(int signum) noexcept {
  int none = 0;
  return firstSignal.compare_exchange_strong(none, signum);
}

int terminationSignal() noexcept {
  return firstSignal.load();
}

void awaitEnd() noexcept {
  for (;;) pause();
}

ProgramGate::ProgramGate() : lock(programRunning) {
  if (terminationSignal() != 0) leave();
}

void ProgramGate::leave() {
  lock.unlock();
  if (terminationSignal() != 0) awaitEnd();
}

void shutProgramGate() {
  programRunning.lock();
}

}  // namespace zelo
