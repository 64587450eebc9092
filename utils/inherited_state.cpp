#include "utils/inherited_state.h"

#include <fcntl.h>
#include <pthread.h>
#include <sys/time.h>
#include <unistd.h>

#include <csignal>
#include <cstdlib>
#include <stdexcept>

namespace zelo {
namespace {

void openStandardDescriptors() {
  for (int fd = STDIN_FILENO; fd <= STDERR_FILENO; ++fd) {
    if (fcntl(fd, F_GETFD) >= 0) continue;
    // The lowest free descriptor is this one: those below are open by now.
    if (open("/dev/null", O_RDWR) != fd) throw std::runtime_error("unable to open /dev/null");
  }
}

void doNothing(int /*signum*/) {}

void stopIgnoringSignals() {
  for (int signum = 1; signum <= SIGRTMAX; ++signum) {
    struct sigaction action = {};
    if (sigaction(signum, nullptr, &action) != 0) continue;
    const bool byFailedWrite = signum == SIGPIPE || signum == SIGXFSZ;
    if (byFailedWrite && (action.sa_handler == SIG_IGN || action.sa_handler == SIG_DFL)) {
      (void)signal(signum, doNothing);
    } else if (action.sa_handler == SIG_IGN) {
      (void)signal(signum, SIG_DFL);
    }
  }
}

// Expired, a timer ends the process.
void stopTimers() {
  const itimerval none{};
  for (const auto timer : {ITIMER_REAL, ITIMER_VIRTUAL, ITIMER_PROF}) (void)setitimer(timer, &none, nullptr);
}

}  // namespace

void repairInheritedState() {
  openStandardDescriptors();
  stopIgnoringSignals();
  stopTimers();
  (void)clearenv();  // NOLINT(concurrency-mt-unsafe): there is one thread yet
  sigset_t none;
  sigemptyset(&none);
  pthread_sigmask(SIG_SETMASK, &none, nullptr);
}

}  // namespace zelo
