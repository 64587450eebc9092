#include "main/single_instance.h"

#include <mutex>

#include "platform/qorvex_daemon.h"
#include "utils/log.h"

std::atomic<std::int32_t> g_singleton_handle{-1};

namespace {

constexpr const char* pidFile = "/var/run/zeloinstall.pid";

std::mutex g_releasing;

}  // namespace

AnotherInstance::AnotherInstance() : std::runtime_error("one more instance of zeloinstall is running.") {}

void checkSingleInstance() {
  const std::int32_t handle = qorvex_daemon_checksingleton(pidFile);
  g_singleton_handle = handle;
  if (handle >= 0) return;
  zelo::logInfo("I def:zeloinstall:main:one more instance of zeloinstall is running. Exiting");
  qorvex_daemon_cleansingleton(pidFile, handle);
  throw AnotherInstance();
}

void releaseSingleInstance() {
  const std::lock_guard<std::mutex> lock(g_releasing);
  const std::int32_t handle = g_singleton_handle.exchange(-1);
  if (handle != -1) qorvex_daemon_cleansingleton(pidFile, handle);
}
