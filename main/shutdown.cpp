#include "main/shutdown.h"

#include <pthread.h>
#include <semaphore.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <csignal>
#include <ctime>
#include <system_error>

#include "main/single_instance.h"
#include "utils/log.h"
#include "utils/termination.h"

namespace {

pid_t g_daemon_pid = 0;
sem_t g_signal_noted;  // posted once for each thread
sem_t g_line_written;
std::atomic<bool> g_line_begun{false};

timespec fromNow(time_t seconds) {
  timespec time{};
  clock_gettime(CLOCK_MONOTONIC, &time);
  time.tv_sec += seconds;
  return time;
}

void awaitSignal() {
  while (sem_wait(&g_signal_noted) != 0 && errno == EINTR) {
  }
}

void awaitLine() {
  const timespec deadline = fromNow(zelo::logPatienceSeconds);
  while (sem_clockwait(&g_line_written, CLOCK_MONOTONIC, &deadline) != 0 && errno == EINTR) {
  }
}

// One line per process: a signal may still arrive after the line of a complete run.
void writeLine(int signum) {
  if (g_line_begun.exchange(true)) return;
  zelo::logInfo("I def:zeloinstall:signum=%d:We're going down...", signum);
}

// Ends the process by the signal's default action.
[[noreturn]] void endBy(int signum) {
  (void)signal(signum, SIG_DFL);
  (void)raise(signum);
  _exit(128 + signum);  // the first process of a container has no default actions
}

// Only writes, because a log receiver that has stopped reading blocks it. If the main thread still acts at
// the deadline, it is stuck in the platform, and the line is written anyway.
void* lineThread(void* /*unused*/) {
  awaitSignal();
  zelo::awaitIdleMainThread(fromNow(zelo::logPatienceSeconds / 2));
  writeLine(zelo::terminationSignal());
  sem_post(&g_line_written);
  return nullptr;
}

void* endThread(void* /*unused*/) {
  awaitSignal();
  awaitLine();
  zelo::awaitNoProgram();
  releaseSingleInstance();
  endBy(zelo::terminationSignal());
}

void startThread(void* (*body)(void*)) {
  pthread_t thread{};
  const int error = pthread_create(&thread, nullptr, body, nullptr);
  if (error != 0)
    throw std::system_error(error, std::generic_category(), "unable to start a shutdown thread");
  pthread_detach(thread);
}

}  // namespace

void startShutdownThreads() {
  g_daemon_pid = getpid();
  for (sem_t* semaphore : {&g_signal_noted, &g_line_written}) sem_init(semaphore, 0, 0);
  startThread(lineThread);
  startThread(endThread);
}

void shutdownHandler(int signum) {
  if (signum == 0) {
    zelo::passGate();
    writeLine(signum);
    releaseSingleInstance();
  } else if (getpid() != g_daemon_pid) {  // a forked child, not yet its program
    (void)signal(signum, SIG_DFL);
    (void)raise(signum);
  } else if (zelo::noteTerminationSignal(signum)) {
    sem_post(&g_signal_noted);
    sem_post(&g_signal_noted);
  }
}
