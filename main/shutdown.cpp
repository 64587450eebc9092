#include "main/shutdown.h"

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

// How long a log receiver that has stopped reading may keep the process from ending.
constexpr time_t logPatienceSeconds = 2;

pid_t daemonPid = 0;
sem_t lineWanted;
sem_t lineWritten;
sem_t endWanted;

void waitFor(sem_t& semaphore) {
  while (sem_wait(&semaphore) != 0 && errno == EINTR) {
  }
}

void waitForLine() {
  timespec deadline{};
  clock_gettime(CLOCK_MONOTONIC, &deadline);
  deadline.tv_sec += logPatienceSeconds;
  while (sem_clockwait(&lineWritten, CLOCK_MONOTONIC, &deadline) != 0 && errno == EINTR) {
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

// A thread of its own, because a log receiver that does not read blocks whoever writes.
void* lineThread(void* /*unused*/) {
  waitFor(lineWanted);
  writeLine(zelo::terminationSignal());
  sem_post(&lineWritten);
  return nullptr;
}

void* endThread(void* /*unused*/) {
  waitFor(endWanted);
  zelo::shutProgramGate();
  waitForLine();
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
  daemonPid = getpid();
  for (sem_t* semaphore : {&lineWanted, &lineWritten, &endWanted}) sem_init(semaphore, 0, 0);

  // The signals are for the main thread; these two start no programs that could inherit the mask.
  sigset_t all;
  sigset_t previous;
  sigfillset(&all);
  pthread_sigmask(SIG_SETMASK, &all, &previous);
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
  if (getpid() != daemonPid) {  // a forked child that has not become its program yet
    (void)signal(signum, SIG_DFL);
    (void)raise(signum);
    return;
  }
  if (!zelo::noteTerminationSignal(signum)) return;
  const int savedErrno = errno;
  sem_post(&lineWanted);
  sem_post(&endWanted);
  errno = savedErrno;
}
