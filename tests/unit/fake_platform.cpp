#include "tests/unit/fake_platform.h"

#include <dlfcn.h>
#include <gtest/gtest.h>
#include <pthread.h>
#include <sys/syscall.h>
#include <syslog.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstdarg>
#include <cstring>
#include <filesystem>
#include <mutex>

#include "download/transfer_service_wrapper.h"
#include "download/work_directory.h"
#include "platform/ctrap.h"
#include "platform/device_info.h"
#include "platform/prefbox.h"
#include "platform/qorvex_daemon.h"
#include "utils/files.h"

namespace fake {
namespace {

Platform current;
std::mutex logLock;
bool logIsShown = false;

struct Handle final : xfr::Transfer {
  explicit Handle(int value) : id(value) { ++current.transfersAlive; }
  ~Handle() override { --current.transfersAlive; }
  const int& getId() override { return id; }
  int id;
};

// Lives as long as the process: the forked ones of death tests end without it.
struct Directories {
  Directories() = default;
  Directories(const Directories&) = delete;
  Directories& operator=(const Directories&) = delete;
  ~Directories() {
    std::error_code ignored;
    for (const std::string& path : paths) std::filesystem::remove_all(path, ignored);
  }
  std::vector<std::string> paths;
};

Directories directories;

int giveText(const std::optional<std::string>& text, char** result) {
  EXPECT_EQ(*result, nullptr);
  if (current.succeedWithoutText) return 0;
  *result = strdup(text ? text->c_str() : "left behind by a failure");
  return text ? 0 : -1;
}

}  // namespace

void Request::report(int state, int deferred, int reportedId) const {
  Report status(state, reportedId == 0 ? id : reportedId, deferred);
  listener->onProgress(&status);
}

Platform& platform() {
  return current;
}

void reset() {
  EXPECT_EQ(current.transfersAlive, 0);
  EXPECT_EQ(current.requestsAlive, 0);
  current = Platform();
  g_qorvex_log_mask = 0x0FFF0000;
}

void logToStandardError() {
  logIsShown = true;
}

std::string temporaryDirectory() {
  directories.paths.push_back(zelo::createTempDirectory());
  return directories.paths.back();
}

int count(const std::vector<std::string>& journal, const std::string& beginning) {
  return static_cast<int>(std::count_if(journal.begin(), journal.end(), [&](const std::string& entry) {
    return entry.compare(0, beginning.size(), beginning) == 0;
  }));
}

}  // namespace fake

using fake::current;

struct KbusHandleStruct {};

namespace {

KbusHandleStruct bus;

}  // namespace

KbusHandleStruct* KbusOpenEx(const char* serviceName, int* resultCode) {
  current.calls.push_back(std::string("open ") + serviceName);
  *resultCode = current.busResult;
  return current.busResult == 0 ? &bus : nullptr;
}

int KbusClose(KbusHandleStruct* handle) {
  EXPECT_EQ(handle, &bus);
  current.calls.emplace_back("close");
  return 0;
}

struct xfr::TransferRequestDescImpl::State {
  fake::Request request;
};

xfr::TransferRequestDescImpl::TransferRequestDescImpl(const char* source, const char* a2, const char* method,
                                                      const char* destination, const char* a5, int a6,
                                                      const char* a7, GHashTable* a8, const char* client,
                                                      const char* a10, const char* display, const char* a12,
                                                      const char* passThrough, int a14, int a15,
                                                      const char* name, TransferListener* listener, bool a18,
                                                      int a19, const char* a20)
    : state_(std::make_unique<State>()) {
  for (const void* null :
       {static_cast<const void*>(a2), static_cast<const void*>(a5), static_cast<const void*>(a7),
        static_cast<const void*>(a8), static_cast<const void*>(a10), static_cast<const void*>(a12)}) {
    EXPECT_EQ(null, nullptr);
  }
  EXPECT_STREQ(display, source);
  EXPECT_STREQ(passThrough, "");
  EXPECT_STREQ(name, "request_download");
  EXPECT_STREQ(a20, "");
  EXPECT_TRUE(a6 == 0 && a14 == 0 && a15 == 1 && !a18 && a19 == -1);
  state_->request.source = source;
  state_->request.destination = destination;
  state_->request.method = method;
  state_->request.client = client;
  state_->request.listener = listener;
  ++current.requestsAlive;
}

xfr::TransferRequestDescImpl::~TransferRequestDescImpl() {
  --current.requestsAlive;
}

struct xfr::TransferServiceImpl::State {
  fake::Request* running = nullptr;
};

xfr::TransferServiceImpl::TransferServiceImpl(KbusHandleStruct* handle) : state_(std::make_unique<State>()) {
  EXPECT_EQ(handle, &bus);
}

xfr::TransferServiceImpl::~TransferServiceImpl() {
  current.calls.emplace_back("delete service");
}

bool xfr::TransferServiceImpl::initialize() {
  current.calls.emplace_back("initialize");
  return current.ready;
}

xfr::Transfer* xfr::TransferServiceImpl::initiateTransfer(TransferRequestDescImpl* request) {
  EXPECT_EQ(state_->running, nullptr) << "one transfer at a time";
  fake::Request& submitted = request->state_->request;
  current.calls.push_back("initiate " + submitted.source + " " + submitted.destination);
  EXPECT_EQ(submitted.method, "GET");
  EXPECT_EQ(submitted.client, "com.qorvex.zeloinstall");
  submitted.id = current.firstId++;
  auto handle = std::make_unique<fake::Handle>(submitted.id);
  submitted.handle = handle.get();
  if (!current.onInitiate(submitted)) return nullptr;  // the handle goes, announced or not
  state_->running = &submitted;
  return handle.release();
}

int xfr::TransferServiceImpl::suspendTransfer(Transfer* /*transfer*/) {
  return -1;
}

int xfr::TransferServiceImpl::finishTransfer(Transfer* transfer, int reason) {
  EXPECT_EQ(reason, 0);
  EXPECT_NE(state_->running, nullptr) << "finished without a running transfer";
  if (state_->running == nullptr) return -1;
  EXPECT_EQ(transfer, state_->running->handle);
  EXPECT_EQ(current.requestsAlive, 1) << "the request must outlive its transfer";
  current.calls.emplace_back("finish");
  current.onFinish(*std::exchange(state_->running, nullptr));
  return 0;
}

int getPrefboxValue(const char* key, char** value) {
  const auto found = current.settings.find(key);
  return fake::giveText(found == current.settings.end() ? std::nullopt : std::optional(found->second), value);
}

int getSoftwareVersion(std::int64_t* version) {
  if (current.version) *version = *current.version;
  return current.version ? 0 : -1;
}

int getSoftwarePackageName(char** name) {
  return fake::giveText(current.packageName, name);
}

std::uint32_t g_qorvex_log_mask = 0;

int qorvex_daemon_checksingleton(const char* pidFile) {
  current.calls.push_back(std::string("check ") + pidFile);
  return current.lockHandle;
}

int qorvex_daemon_cleansingleton(const char* pidFile, int handle) {
  current.calls.push_back("clean " + std::string(pidFile) + " " + std::to_string(handle));
  return 0;
}

void ctrap_register_signal_handlers() {}

const std::string zelo::g_work_directory = fake::temporaryDirectory();

xfr::TransferServiceImpl* getTransferService() {
  static xfr::TransferServiceImpl service(&bus);
  return &service;
}

// The tests' own versions of four calls of the C library.
extern "C" {

void vsyslog(int priority, const char* format, std::va_list arguments) {
  char line[4096];
  std::vsnprintf(line, sizeof line, format, arguments);
  if (fake::logIsShown) std::fprintf(stderr, "%s\n", line);
  const std::lock_guard<std::mutex> lock(fake::logLock);
  current.log.push_back("<" + std::to_string(priority) + "> " + line);
}

void __vsyslog_chk(int priority, int /*flag*/, const char* format, std::va_list arguments) {
  vsyslog(priority, format, arguments);
}

int pthread_cond_timedwait(pthread_cond_t* condition, pthread_mutex_t* mutex, const timespec* deadline) {
  static const auto real = reinterpret_cast<decltype(&pthread_cond_timedwait)>(dlsym(RTLD_NEXT, __func__));
  if (current.spuriousWakeUps == 0) return real(condition, mutex, deadline);
  --current.spuriousWakeUps;
  return 0;
}

int usleep(useconds_t microseconds) {
  current.pauses.push_back(microseconds);
  return 0;
}

int clock_gettime(clockid_t clock, timespec* now) noexcept {
  if (current.clockFails) {
    errno = EINVAL;
    return -1;
  }
  return static_cast<int>(syscall(SYS_clock_gettime, clock, now));
}

}  // extern "C"
