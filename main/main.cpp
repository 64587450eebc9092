#include <syslog.h>

#include <csignal>
#include <cstdint>
#include <exception>
#include <initializer_list>

#include "main/pipeline.h"
#include "main/shutdown.h"
#include "main/single_instance.h"
#include "main/uncaught.h"
#include "platform/ctrap.h"
#include "platform/qorvex_daemon.h"

namespace {

constexpr std::uint32_t allLevels = 0x0FFF0000;

// Static initialisation has repaired the inherited state, made the work directory and opened the bus; see
// main/before_main.cpp.
void run() {
  g_qorvex_log_mask = allLevels;
  openlog("zeloinstall", LOG_PID | LOG_CONS, LOG_LOCAL0);

  checkSingleInstance();
  startShutdownThreads();
  for (const int signum : {SIGTERM, SIGQUIT, SIGINT, SIGHUP}) (void)signal(signum, shutdownHandler);
  zelo::makeAbortsCrash();
  ctrap_register_signal_handlers();

  zelo::runPipeline();
  shutdownHandler(0);
}

}  // namespace

int main() {
  try {
    run();
  } catch (...) {
    std::terminate();  // the stack is unwound first: a started program is waited for
  }
  return 0;
}
