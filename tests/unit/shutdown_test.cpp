#include <pthread.h>

#include <chrono>
#include <csignal>
#include <cstdlib>
#include <thread>

#include "download/transfer_wrapper.h"
#include "main/shutdown.h"
#include "main/single_instance.h"
#include "main/uncaught.h"
#include "tests/unit/fake_platform.h"
#include "tests/unit/in_child.h"
#include "utils/command_runner.h"
#include "utils/files.h"
#include "utils/termination.h"

namespace {

using std::chrono::milliseconds;
using std::this_thread::sleep_for;

struct Frame : fake::Test {};

std::string goingDown(int signum) {
  return "<5> I def:zeloinstall:signum=" + std::to_string(signum) + ":We're going down...";
}

TEST_F(Frame, TheLockIsReleasedOnceAndTheLineWrittenOnce) {
  const Texts said = inChild([&] {
    platform.onLine = say;
    checkSingleInstance();
    shutdownHandler(0);
    shutdownHandler(0);
    for (const std::string& call : platform.calls) say(call);
  });
  EXPECT_EQ(said, (Texts{goingDown(0), "check /var/run/zeloinstall.pid", "clean /var/run/zeloinstall.pid 0",
                         "exit 0"}));
}

TEST_F(Frame, ASecondInstanceIsRefused) {
  platform.lockHandle = -7;
  EXPECT_EQ(failureOf<AnotherInstance>(checkSingleInstance), "one more instance of zeloinstall is running.");
  EXPECT_NE(alarm(0), 0U) << "a log receiver that has stopped reading would keep it from ending";
  EXPECT_EQ(platform.calls.at(1), "clean /var/run/zeloinstall.pid -7");
}

// Where the main thread is when SIGTERM comes.
enum class At { start, submission, finish, fork, forkedChild, never };
At g_signal_at = At::never;

void reach(At point) {
  if (point == g_signal_at) raise(SIGTERM);
}

[[noreturn]] void stay() {
  for (;;) pause();
}

// As the entry does. The release is slow: a main thread that came back from a wait would be heard.
void startFrame() {
  fake::Platform& platform = fake::platform;
  platform.monotonicAhead = 3600;  // an end that needs a deadline to pass is no end
  platform.onLine = say;
  platform.onRelease = [] {
    sleep_for(milliseconds(300));
    say("released");
  };
  platform.onInitiate = [](fake::Request& request) {
    say("submits");
    request.announce();
    reach(At::submission);
    request.report(xfr::transferFailed);
    return true;
  };
  platform.onFinish = [](fake::Request&) {
    say("finishes");
    reach(At::finish);
  };
  pthread_atfork([] { reach(At::fork); }, nullptr, [] { reach(At::forkedChild); });
  checkSingleInstance();
  startShutdownThreads();
  for (const int signum : {SIGTERM, SIGQUIT, SIGINT, SIGHUP}) signal(signum, shutdownHandler);
  reach(At::start);
}

void program() {
  (void)zelo::runCommand({"/bin/sh", "-c", "echo starts >&2"});
}

void download() {
  const std::string failure =
      failureOf([] { zelo::TransferWrapper("https://x/y", "GET", "", "/none").download(60); });
  say(failure);
  zelo::sleepSeconds(1);
}

void downloadWhoseWaitIsInterrupted() {
  fake::platform.onTimedWait = [](const timespec&) -> std::optional<int> {
    raise(SIGTERM);
    return ETIMEDOUT;
  };
  fake::platform.onInitiate = [](fake::Request&) { return true; };
  download();
}

void actForAWhile() {
  fake::platform.monotonicAhead = 0;
  raise(SIGTERM);
  sleep_for(milliseconds(100));
  say("acts");
  zelo::passGate();
}

void programAfterASignalOnAnotherThread() {
  std::thread([] { raise(SIGTERM); }).join();
  program();
}

void stuckPlatform() {
  fake::platform.monotonicAhead = 0;
  raise(SIGTERM);
  stay();
}

void slowRelease() {
  fake::platform.monotonicAhead = 0;
  fake::platform.onRelease = [] {
    raise(SIGTERM);
    sleep_for(milliseconds(1300));  // longer than the line thread waits for the main thread
    say("released");
  };
  shutdownHandler(0);
  stay();
}

void lastStep() {
  shutdownHandler(0);
}

// Nothing begins once the line is written, and the main thread does not come back.
TEST_F(Frame, ATerminationSignalEndsTheProcess) {
  const std::string line = goingDown(SIGTERM);
  const std::string end = "signal 15";
  const std::string failed = "<4> W TransferWrapper:onProgress:transferFailed:error_code=500";
  const struct {
    const char* name;
    At at;
    void (*act)();
    Texts said;
  } rows[] = {
      {"before a program", At::start, program, {line, "released", end}},
      {"between gate and fork", At::fork, program, {line, "released", end}},
      {"in the forked child: its own", At::forkedChild, program, {"comes back", "exit 0"}},
      {"before a download's wait", At::submission, download, {"submits", line, "released", end}},
      {"in a download's wait", At::never, downloadWhoseWaitIsInterrupted, {line, "released", end}},
      {"after a download's wait",
       At::finish,
       download,
       {"submits", failed, "finishes", line, "released", end}},
      {"while the main thread acts", At::never, actForAWhile, {"acts", line, "released", end}},
      {"while the platform keeps it", At::never, stuckPlatform, {line, "released", end}},
      {"just before the end", At::start, lastStep, {line, "released", end}},
      {"in the last step", At::never, slowRelease, {goingDown(0), "released", end}},
      {"on another thread", At::never, programAfterASignalOnAnotherThread, {line, "released", end}},
  };
  for (const auto& row : rows) {
    g_signal_at = row.at;
    const Texts said = inChild([&] {
      startFrame();
      row.act();
      say("comes back");
    });
    EXPECT_EQ(said, row.said) << row.name;
  }
}

void failWhileTheLogBlocks() {
  fake::platform.onLine = [](const std::string&) { stay(); };
  sigset_t all;
  sigfillset(&all);
  pthread_sigmask(SIG_SETMASK, &all, nullptr);
  throw 5;
}

TEST_F(Frame, AStartThatFailsEndsWithStatusOne) {
  const std::string ending = "<3> E def:zeloinstall:main:ending with status 1: ";
  const std::pair<void (*)(), Texts> rows[] = {
      {[] { throw 5; }, {ending + "unknown exception", "exit 1"}},
      {[] { std::terminate(); }, {ending + "terminated without an exception", "exit 1"}},
      {[] { std::abort(); }, {"exit 1"}},
      {failWhileTheLogBlocks, {"exit 1"}}};
  for (const auto& [fail, expected] : rows) {
    const auto start = std::chrono::steady_clock::now();
    const Texts said = inChild([action = fail] {
      fake::platform.onLine = say;
      zelo::endOnUncaughtExceptions();
      action();
    });
    EXPECT_EQ(said, expected);
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(15)) << "the log blocks it";
  }
}

}  // namespace
