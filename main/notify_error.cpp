#include "main/notify_error.h"

#include "utils/command_runner.h"
#include "utils/log.h"

namespace zelo {

void notifyError(const ZeloException& error) {
  logError("E def:zeloinstall:zeloutils:%s", error.what());
  (void)runCommand({"/usr/bin/kbus-set-prop", "com.qorvex.vestrel", "load", "zelo"});
  (void)runCommand(
      {"/usr/bin/kbus-send-event", "com.qorvex.vestrel.zelo", "showError", "-s", error.getCode()});
}

}  // namespace zelo
