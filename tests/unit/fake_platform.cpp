#include "tests/unit/fake_platform.h"

#include <dlfcn.h>
#include <pthread.h>
#include <sys/syscall.h>
#include <syslog.h>
#include <unistd.h>

#include <cerrno>
#include <cstdarg>
#include <cstring>
#include <filesystem>
#include <mutex>

#include "download/transfer_service_wrapper.h"
#include "download/work_directory.h"
#include "platform/device_info.h"
#include "platform/prefbox.h"
#include "platform/qorvex_daemon.h"
#include "utils/files.h"

namespace fake {
namespace {

constexpr std::uint32_t everyLevel = 0x0FFF0000;
std::mutex g_log_lock;

struct Report final : xfr::TransferStatus {
  Report(int stateValue, int idValue, int deferredValue, int laterState)
      : state(stateValue), id(idValue), deferred(deferredValue), later(laterState) {}
  int getId() override { return id; }
  int getState() override { return std::exchange(state, later == 0 ? state : later); }
  int getErrorCode() override { return 500; }
  int getDeferredCode() override { return deferred; }
  int state, id, deferred, later;
};

int giveText(const std::optional<std::string>& text, char** result) {
  EXPECT_EQ(*result, nullptr);
  if (platform.succeedWithoutText) return 0;
  *result = strdup(text ? text->c_str() : "left behind by a failure");
  return text ? 0 : -1;
}

}  // namespace

Handle::Handle(int value) : id(value) {
  ++platform.transfersAlive;
}

Handle::~Handle() {
  --platform.transfersAlive;
  EXPECT_TRUE(!handedOver || platform.requestsAlive == 0) << "a request must not outlive its handle";
}

void Request::report(int state, int deferred, int reportedId, int later) const {
  Report status(state, reportedId == 0 ? id : reportedId, deferred, later);
  listener->onProgress(&status);
}

Test::~Test() {
  EXPECT_TRUE(platform.transfersAlive == 0 && platform.requestsAlive == 0);
  platform = Platform();
  g_qorvex_log_mask = everyLevel;
}

}  // namespace fake

using fake::platform;

struct xfr::TransferRequestDescImpl::State : fake::Request {};

xfr::TransferRequestDescImpl::TransferRequestDescImpl(const char* source, const char* a2, const char* method,
                                                      const char* destination, const char* a5, int a6,
                                                      const char* a7, GHashTable* a8, const char* client,
                                                      const char* a10, const char* display, const char* a12,
                                                      const char* passThrough, int a14, int a15,
                                                      const char* name, TransferListener* listener, bool a18,
                                                      int a19, const char* a20)
    : state_(std::make_unique<State>(State{{source, destination, listener}})) {
  EXPECT_TRUE(!a2 && !a5 && !a7 && !a8 && !a10 && !a12);
  EXPECT_TRUE(a6 == 0 && a14 == 0 && a15 == 1 && !a18 && a19 == -1);
  EXPECT_EQ((Texts{method, client, display, passThrough, name, a20}),
            (Texts{"GET", "com.qorvex.zeloinstall", source, "", "request_download", ""}));
  ++platform.requestsAlive;
}

xfr::TransferRequestDescImpl::~TransferRequestDescImpl() {
  --platform.requestsAlive;
}

struct xfr::TransferServiceImpl::State {
  fake::Request* running = nullptr;
};

xfr::TransferServiceImpl::TransferServiceImpl(KbusHandleStruct* /*bus*/)
    : state_(std::make_unique<State>()) {}

xfr::TransferServiceImpl::~TransferServiceImpl() = default;

bool xfr::TransferServiceImpl::initialize() {
  return true;
}

xfr::Transfer* xfr::TransferServiceImpl::initiateTransfer(TransferRequestDescImpl* request) {
  EXPECT_EQ(state_->running, nullptr) << "one transfer at a time";
  fake::Request& submitted = *request->state_;
  platform.calls.push_back("initiate " + submitted.source + " " + submitted.destination);
  submitted.id = platform.firstId++;
  auto handle = std::make_unique<fake::Handle>(submitted.id);
  submitted.handle = handle.get();
  if (!platform.onInitiate(submitted)) return nullptr;  // the handle goes, announced or not
  state_->running = &submitted;
  handle->handedOver = true;
  return handle.release();
}

int xfr::TransferServiceImpl::suspendTransfer(Transfer* /*transfer*/) {
  return -1;
}

int xfr::TransferServiceImpl::finishTransfer(Transfer* transfer, int reason) {
  platform.calls.emplace_back("finish");
  fake::Request* const running = std::exchange(state_->running, nullptr);
  const bool finishes = running != nullptr && transfer == running->handle && reason == 0;
  EXPECT_TRUE(finishes && platform.requestsAlive == 1);
  if (finishes) platform.onFinish(*running);
  return 0;
}

int getPrefboxValue(const char* key, char** value) {
  const auto found = platform.settings.find(key);
  return fake::giveText(found == platform.settings.end() ? std::nullopt : std::optional(found->second),
                        value);
}

int getSoftwareVersion(std::int64_t* version) {
  if (platform.version) *version = *platform.version;
  return platform.version ? 0 : -1;
}

int getSoftwarePackageName(char** name) {
  return fake::giveText(platform.packageName, name);
}

std::uint32_t g_qorvex_log_mask = fake::everyLevel;

int qorvex_daemon_checksingleton(const char* pidFile) {
  platform.calls.push_back(std::string("check ") + pidFile);
  return platform.lockHandle;
}

int qorvex_daemon_cleansingleton(const char* pidFile, int handle) {
  platform.calls.push_back("clean " + std::string(pidFile) + " " + std::to_string(handle));
  platform.onRelease();
  return 0;
}

const std::string zelo::g_work_directory = zelo::createTempDirectory();

// Forked processes end without it.
static const struct RemoveWorkDirectory {
  ~RemoveWorkDirectory() { std::filesystem::remove_all(zelo::g_work_directory); }
} g_remove_work_directory;

xfr::TransferServiceImpl* getTransferService() {
  static xfr::TransferServiceImpl service(nullptr);
  return &service;
}

// On 32 bits the calls that know the time after 2038 have names and numbers of their own.
constexpr bool wideTime = sizeof(time_t) > sizeof(long);

// The tests' own versions of calls of the C library.
extern "C" {

void vsyslog(int priority, const char* format, std::va_list arguments) {
  char text[4096];
  std::vsnprintf(text, sizeof text, format, arguments);
  const std::string line = "<" + std::to_string(priority) + "> " + text;
  platform.onLine(line);
  const std::lock_guard<std::mutex> lock(fake::g_log_lock);
  platform.log.push_back(line);
}

void __vsyslog_chk(int priority, int /*flag*/, const char* format, std::va_list arguments) {
  vsyslog(priority, format, arguments);
}

int pthread_cond_timedwait(pthread_cond_t* condition, pthread_mutex_t* mutex, const timespec* deadline) {
  static void* const symbol = dlsym(RTLD_NEXT, wideTime ? "__pthread_cond_timedwait64" : __func__);
  static const auto real = reinterpret_cast<decltype(&pthread_cond_timedwait)>(symbol);
  const std::optional<int> result = platform.onTimedWait(*deadline);
  return result ? *result : real(condition, mutex, deadline);
}

int usleep(useconds_t microseconds) {
  platform.pauses.push_back(microseconds);
  const bool interrupted = platform.onPause();
  errno = EINTR;
  return interrupted ? -1 : 0;
}

int clock_gettime(clockid_t clock, timespec* now) noexcept {
  if (syscall(wideTime ? 403 : SYS_clock_gettime, clock, now) != 0) return -1;
  if (clock == CLOCK_MONOTONIC) now->tv_sec += platform.monotonicAhead;
  return 0;
}

}  // extern "C"
