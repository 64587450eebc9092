#include "main/uncaught.h"

#include <unistd.h>

#include <csignal>
#include <cstdlib>
#include <exception>

#include "utils/log.h"

namespace zelo {
namespace {

[[noreturn]] void end(const char* reason) noexcept {
  logError("E def:zeloinstall:main:ending with status 1: %s", reason);
  _exit(EXIT_FAILURE);
}

[[noreturn]] void endWithStatusOne() noexcept {
  const std::exception_ptr exception = std::current_exception();
  if (!exception) end("terminated without an exception");
  try {
    std::rethrow_exception(exception);
  } catch (const std::exception& error) {
    end(error.what());
  } catch (...) {
    end("unknown exception");
  }
}

// Stands until the crash dumps are set up; before that, an abort is a library in want of something.
void endOnAbort(int /*signum*/) {
  _exit(EXIT_FAILURE);
}

}  // namespace

void endOnUncaughtExceptions() noexcept {
  std::set_terminate(endWithStatusOne);
  (void)signal(SIGABRT, endOnAbort);
}

}  // namespace zelo
