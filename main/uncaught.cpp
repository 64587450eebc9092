#include "main/uncaught.h"

#include <pthread.h>
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
    _exit(EXIT_FAILURE);  // its line has been written
  } catch (const std::exception& error) {
    end(error.what());
  } catch (...) {
    end("unknown exception");
  }
}

}  // namespace

void endOnUncaughtExceptions() noexcept {
  std::set_terminate(endUncaught);
  // Until the crash-dump handlers are installed, an abort counts as a failed start: a library aborts when it
  // lacks a resource.
  (void)signal(SIGABRT, endWithStatusOne);
}

void endWithinLogPatience() noexcept {
  (void)signal(SIGALRM, endWithStatusOne);
  sigset_t only;
  sigemptyset(&only);
  sigaddset(&only, SIGALRM);
  pthread_sigmask(SIG_UNBLOCK, &only, nullptr);
  alarm(logPatienceSeconds);
}

}  // namespace zelo
