#include "main/uncaught.h"

#include <unistd.h>

#include <csignal>
#include <cstdlib>
#include <exception>

#include "main/single_instance.h"
#include "utils/log.h"

namespace zelo {
namespace {

void endWithStatusOne(int /*signum*/) {
  _exit(EXIT_FAILURE);
}

[[noreturn]] void end(const char* reason) noexcept {
  endWithinLogPatience();
  logError("E def:zeloinstall:main:ending with status 1: %s", reason);
  _exit(EXIT_FAILURE);
}

[[noreturn]] void endUncaught() noexcept {
  const std::exception_ptr exception = std::current_exception();
  if (!exception) end("terminated without an exception");
  try {
    std::rethrow_exception(exception);
  } catch (const AnotherInstance&) {
    _exit(EXIT_FAILURE);  // already logged
  } catch (const std::exception& error) {
    end(error.what());
  } catch (...) {
    end("unknown exception");
  }
}

}  // namespace

void endOnUncaughtExceptions() noexcept {
  std::set_terminate(endUncaught);
  (void)signal(SIGABRT, endWithStatusOne);
}

void makeAbortsCrash() noexcept {
  struct sigaction action = {};
  (void)sigaction(SIGABRT, nullptr, &action);
  if (action.sa_handler == endWithStatusOne) (void)signal(SIGABRT, SIG_DFL);  // else it is a library's
}

}  // namespace zelo
