#include "utils/inherited_state.h"

#include <fcntl.h>
#include <pthread.h>
#include <unistd.h>

#include <csignal>
#include <stdexcept>

namespace zelo {
namespace {

void openStandardDescriptors() {
  for (int fd = STDIN_FILENO; fd <= STDERR_FILENO; ++fd) {
    if (fcntl(fd, F_GETFD) >= 0) continue;
    // open() returns the lowest free descriptor, which is this one: those below are open.
    if (open("/dev/null", O_RDWR) != fd) throw std::runtime_error("unable to open /dev/null");
  }
}

void surviveFailedWrites() {
  for (const int signum : {SIGPIPE, SIGXFSZ}) {
    struct sigaction action = {};
    (void)sigaction(signum, nullptr, &action);
    if (action.sa_handler == SIG_DFL) (void)signal(signum, [](int) {});
  }
}

}  // namespace

void repairInheritedState() {
  openStandardDescriptors();
  surviveFailedWrites();
  sigset_t none;
  sigemptyset(&none);
  pthread_sigmask(SIG_SETMASK, &none, nullptr);
}

}  // namespace zelo
