#include "utils/inherited_state.h"

#include <fcntl.h>
#include <pthread.h>
#include <unistd.h>

#include <climits>
#include <csignal>
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

}  // namespace

void repairInheritedState() {
  openStandardDescriptors();
  stopIgnoringSignals();
  sigset_t none;
  sigemptyset(&none);
  pthread_sigmask(SIG_SETMASK, &none, nullptr);
}

void stopIgnoringSignals() noexcept {
  for (int signum = 1; signum <= SIGRTMAX; ++signum) {
    struct sigaction action {};
    if (sigaction(signum, nullptr, &action) != 0) continue;
    const bool byFailedWrite = signum == SIGPIPE || signum == SIGXFSZ;
    if (byFailedWrite && (action.sa_handler == SIG_IGN || action.sa_handler == SIG_DFL)) {
      (void)signal(signum, doNothing);
    } else if (action.sa_handler == SIG_IGN) {
      (void)signal(signum, SIG_DFL);
    }
  }
}

void closeOnExecFrom(int first) noexcept {
  if (close_range(static_cast<unsigned>(first), UINT_MAX, CLOSE_RANGE_CLOEXEC) == 0) return;
  // Kernels before 5.11 cannot mark a range.
  const long end = sysconf(_SC_OPEN_MAX);
  for (int fd = first; fd < end; ++fd) {
    const int flags = fcntl(fd, F_GETFD);
    if (flags >= 0) fcntl(fd, F_SETFD, flags | FD_CLOEXEC);
  }
}

}  // namespace zelo
