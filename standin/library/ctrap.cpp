#include "platform/ctrap.h"

#include <execinfo.h>
#include <unistd.h>

#include <cstring>

#include "standin/library/fault_signals.h"

namespace {

std::array<void*, 64> g_frames;

void say(const char* text) {
  if (write(STDERR_FILENO, text, std::strlen(text)) < 0) return;
}

// Installed for one signal only: raised again it has its default action, as soon as this returns.
void dump(int signum) {
  say("zeloinstall: fatal signal SIG");
  say(sigabbrev_np(signum));
  say(", backtrace:\n");
  backtrace_symbols_fd(g_frames.data(), backtrace(g_frames.data(), g_frames.size()), STDERR_FILENO);
  (void)raise(signum);
}

}  // namespace

void ctrap_register_signal_handlers() {
  backtrace(g_frames.data(), 1);  // the first call allocates, which a handler must not

  struct sigaction action = {};
  action.sa_handler = dump;
  action.sa_flags = static_cast<int>(SA_RESETHAND);
  for (const int signum : faultSignals) {
    struct sigaction present = {};
    // What the program handles itself is its business.
    if (sigaction(signum, nullptr, &present) == 0 && present.sa_handler == SIG_DFL)
      sigaction(signum, &action, nullptr);
  }
}
