#include "utils/log.h"

#include <syslog.h>

#include <cstdarg>
#include <cstdint>

#include "platform/qorvex_daemon.h"

namespace zelo {
namespace {

struct Level {
  std::uint32_t maskBit;
  int priority;
};

constexpr Level info{1U << 23, LOG_NOTICE};
constexpr Level warning{1U << 24, LOG_WARNING};
constexpr Level error{1U << 25, LOG_ERR};

[[gnu::format(printf, 2, 0)]] void write(Level level, const char* format, std::va_list arguments) {
  if ((g_qorvex_log_mask & level.maskBit) != 0) vsyslog(level.priority, format, arguments);
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

}  // namespace zelo
