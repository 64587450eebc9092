#include "utils/log.h"

#include <pthread.h>
#include <syslog.h>
#include <unistd.h>

#include <csignal>
#include <cstdarg>
#include <cstdint>
#include <cstdio>
#include <cstdlib>

#include "platform/qorvex_daemon.h"
#include "utils/malloc_text.h"

namespace zelo {
namespace {

struct Level {
  std::uint32_t maskBit;
  int priority;
};

constexpr Level info{1U << 23, LOG_NOTICE};
constexpr Level warning{1U << 24, LOG_WARNING};
constexpr Level error{1U << 25, LOG_ERR};

// A line too long for the log receiver would be lost completely, with the code at its end.
constexpr int longestLine = 32 << 10;
constexpr int keptAtEachEnd = longestLine / 2;

[[gnu::format(printf, 2, 3)]] void send(int priority, const char* format, ...) {
  std::va_list arguments;
  va_start(arguments, format);
  vsyslog(priority, format, arguments);
  va_end(arguments);
}

[[gnu::format(printf, 2, 0)]] void write(Level level, const char* format, std::va_list arguments) {
  if ((g_qorvex_log_mask & level.maskBit) == 0) return;
  std::va_list copy;
  va_copy(copy, arguments);
  char* allocated = nullptr;
  const int length = vasprintf(&allocated, format, copy);
  va_end(copy);
  const MallocText text(length < 0 ? nullptr : allocated);
  if (length > longestLine) {
    send(level.priority, "%.*s [...] %s", keptAtEachEnd, text.get(), text.get() + length - keptAtEachEnd);
  } else {
    vsyslog(level.priority, format, arguments);
  }
}

}  // namespace

void logInfo(const char* format, ...) {
  std::va_list arguments;
  va_start(arguments, format);
  write(info, format, arguments);
  va_end(arguments);
}

void logWarning(const char* format, ...) {
  std::va_list arguments;
  va_start(arguments, format);
  write(warning, format, arguments);
  va_end(arguments);
}

void logError(const char* format, ...) {
  std::va_list arguments;
  va_start(arguments, format);
  write(error, format, arguments);
  va_end(arguments);
}

void endWithinLogPatience() noexcept {
  (void)signal(SIGALRM, [](int) { _exit(EXIT_FAILURE); });
  sigset_t only;
  sigemptyset(&only);
  sigaddset(&only, SIGALRM);
  pthread_sigmask(SIG_UNBLOCK, &only, nullptr);
  alarm(logPatienceSeconds);
}

}  // namespace zelo
