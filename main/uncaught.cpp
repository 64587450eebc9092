#include "main/uncaught.h"

#include <unistd.h>

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

}  // namespace

void endOnUncaughtExceptions() noexcept {
  std::set_terminate(endWithStatusOne);
}

}  // namespace zelo
