#include <syslog.h>

#include <csignal>
#include <cstdint>
#include <exception>
#include <initializer_list>

#include "main/pipeline.h"
#include "main/shutdown.h"
#include "main/single_instance.h"
#include "platform/ctrap.h"
#include "platform/qorvex_daemon.h"
#include "utils/termination.h"

namespace {

constexpr std::uint32_t allLevels = 0x0FFF0000;

void run() {
  g_qorvex_log_mask = allLevels;
  openlog("zeloinstall", LOG_PID | LOG_CONS, LOG_LOCAL0);

  checkSingleInstance();
  startShutdownThreads();
  for (const int signum : {SIGTERM, SIGQUIT, SIGINT, SIGHUP}) (void)signal(signum, shutdownHandler);
  ctrap_register_signal_handlers();

  zelo::runPipeline();
  shutdownHandler(0);
}

}  // namespace

int main() {
  try {
    run();
  } catch (...) {
    // Caught so that the stack is unwound: a started program is waited for before the process ends.
    if (zelo::terminationSignal() != 0) zelo::awaitEnd();
    std::terminate();
  }
  return 0;
}
