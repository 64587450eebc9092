#include "main/single_instance.h"

#include <atomic>
#include <cstdint>

#include "main/uncaught.h"
#include "platform/qorvex_daemon.h"
#include "utils/log.h"
#include "utils/mutex_lock.h"

namespace {

constexpr const char* pidFile = "/var/run/zeloinstall.pid";

// -1 before the check and after the release.
std::atomic<std::int32_t> g_singleton_handle{-1};

pthread_mutex_t g_releasing = PTHREAD_MUTEX_INITIALIZER;

}  // namespace

AnotherInstance::AnotherInstance() : std::runtime_error("one more instance of zeloinstall is running.") {}

void checkSingleInstance() {
  const std::int32_t handle = qorvex_daemon_checksingleton(pidFile);
  g_singleton_handle = handle;
  if (handle >= 0) return;
  zelo::endWithinLogPatience();
  zelo::logInfo("I def:zeloinstall:main:one more instance of zeloinstall is running. Exiting");
  qorvex_daemon_cleansingleton(pidFile, handle);
  throw AnotherInstance();
}

void releaseSingleInstance() {
  const zelo::MutexLock lock(g_releasing);
  const std::int32_t handle = g_singleton_handle.exchange(-1);
  if (handle != -1) qorvex_daemon_cleansingleton(pidFile, handle);
}
