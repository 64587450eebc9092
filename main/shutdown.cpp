#include "main/shutdown.h"

#include <pthread.h>
#include <semaphore.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <ctime>
#include <system_error>

#include "main/single_instance.h"
#include "utils/log.h"
#include "utils/termination.h"

namespace {

pid_t g_daemon_pid = 0;
pthread_t g_main_thread{};
sem_t g_signal_noted;  // posted once for each thread
sem_t g_line_written;

timespec fromNow(time_t seconds) {
  timespec time{};
  clock_gettime(CLOCK_MONOTONIC, &time);
  time.tv_sec += seconds;
  return time;
}

void waitFor(sem_t& semaphore) {
  while (sem_wait(&semaphore) != 0 && errno == EINTR) {
  }
}

void waitForLine() {
  const timespec deadline = fromNow(zelo::logPatienceSeconds);
  while (sem_clockwait(&g_line_written, CLOCK_MONOTONIC, &deadline) != 0 && errno == EINTR) {
  }
}

void writeLine(int signum) {
  zelo::logInfo("I def:zeloinstall:signum=%d:We're going down...", signum);
}

// Ends the process by the signal's default action.
[[noreturn]] void endBy(int signum) {
  (void)signal(signum, SIG_DFL);
  sigset_t only;
  sigemptyset(&only);
  sigaddset(&only, signum);
  pthread_sigmask(SIG_UNBLOCK, &only, nullptr);
  (void)raise(signum);
  _exit(128 + signum);  // the first process of a container has no default actions
}

// A thread of its own, because a log receiver that does not read blocks whoever writes. If the main thread
// acts until the deadline, it is stuck in the platform; the line is written all the same.
void* lineThread(void* /*unused*/) {
  waitFor(g_signal_noted);
  zelo::awaitMainThread(fromNow(zelo::logPatienceSeconds / 2));
  writeLine(zelo::terminationSignal());
  sem_post(&g_line_written);
  return nullptr;
}

void* endThread(void* /*unused*/) {
  waitFor(g_signal_noted);
  waitForLine();
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
  g_main_thread = pthread_self();
  for (sem_t* semaphore : {&g_signal_noted, &g_line_written}) sem_init(semaphore, 0, 0);

  // The main thread gets all signals, except those of a fault: a blocked one would leave no crash dump.
  sigset_t most;
  sigset_t previous;
  sigfillset(&most);
  for (const int fault : {SIGSEGV, SIGBUS, SIGFPE, SIGILL, SIGSYS, SIGTRAP, SIGABRT}) sigdelset(&most, fault);
  pthread_sigmask(SIG_SETMASK, &most, &previous);
  startThread(lineThread);
  startThread(endThread);
  pthread_sigmask(SIG_SETMASK, &previous, nullptr);
}

void shutdownHandler(int signum) {
  if (signum == 0) {
    if (zelo::terminationSignal() != 0) zelo::awaitEnd();
    writeLine(signum);
    releaseSingleInstance();
    return;
  }
  if (getpid() != g_daemon_pid) {  // a forked child that has not become its program yet
    (void)signal(signum, SIG_DFL);
    (void)raise(signum);
    return;
  }
  const int savedErrno = errno;
  if (pthread_equal(pthread_self(), g_main_thread) == 0) {
    pthread_kill(g_main_thread, signum);
  } else if (zelo::noteTerminationSignal(signum)) {
    sem_post(&g_signal_noted);
    sem_post(&g_signal_noted);
  }
  errno = savedErrno;
}
