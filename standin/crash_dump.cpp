#include <execinfo.h>
#include <unistd.h>

#include <array>
#include <csignal>
#include <cstring>

#include "platform/ctrap.h"

namespace {

constexpr std::array<int, 7> fatalSignals{SIGSEGV, SIGBUS, SIGILL, SIGFPE, SIGABRT, SIGSYS, SIGTRAP};

// For a handler that runs because the ordinary stack is used up.
alignas(16) std::array<char, 32768> g_handler_stack;

std::array<void*, 64> g_frames;

void say(const char* text) {
  if (write(STDERR_FILENO, text, std::strlen(text)) < 0) return;
}

// Installed for one signal only: raised again it has its default action, as soon as this returns.
void dump(int signum) {
  const char* name = sigabbrev_np(signum);
  say("zeloinstall: fatal signal SIG");
  say(name == nullptr ? "?" : name);
  say(", backtrace:\n");
  backtrace_symbols_fd(g_frames.data(), backtrace(g_frames.data(), static_cast<int>(g_frames.size())),
                       STDERR_FILENO);
  (void)raise(signum);
}

}  // namespace

void ctrap_register_signal_handlers() {
  backtrace(g_frames.data(), 1);  // the first call allocates, which a handler must not

  stack_t stack{};
  stack.ss_sp = g_handler_stack.data();
  stack.ss_size = g_handler_stack.size();
  const bool hasStack = sigaltstack(&stack, nullptr) == 0;

  struct sigaction action = {};
  action.sa_handler = dump;
  action.sa_flags = static_cast<int>(SA_RESETHAND) | (hasStack ? SA_ONSTACK : 0);
  for (const int signum : fatalSignals) sigaction(signum, &action, nullptr);
}
