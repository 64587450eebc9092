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

TEST_F(Frame, TheLockIsReleasedOnce) {
  for (const int handle : {0, 7}) {
    platform.calls.clear();
    platform.lockHandle = handle;
    checkSingleInstance();
    for (int i = 0; i < 2; ++i) shutdownHandler(0);
    const std::string pidFile = "/var/run/zeloinstall.pid";
    EXPECT_EQ(platform.calls, (Texts{"check " + pidFile, "clean " + pidFile + " " + std::to_string(handle)}));
  }
  EXPECT_EQ(platform.log, Texts(4, "<5> I def:zeloinstall:signum=0:We're going down..."));
}

TEST_F(Frame, ASecondInstanceIsRefused) {
  platform.lockHandle = -7;
  EXPECT_EQ(failureOf<AnotherInstance>(checkSingleInstance), "one more instance of zeloinstall is running.");
  EXPECT_NE(alarm(0), 0U) << "a log receiver that has stopped reading would keep it from ending";
  EXPECT_EQ(platform.calls.at(1), "clean /var/run/zeloinstall.pid -7");
}

// Where the main thread is when SIGTERM comes.
enum class At { start, pause, submission, finish, fork, forkedChild, never };
At g_signal_at = At::never;
int g_script_input = -1;

void reach(At point) {
  if (point == g_signal_at) raise(SIGTERM);
}

// As the entry does. The release is slow: a main thread that came back from a wait would be heard.
void startFrame() {
  int ends[2];
  if (pipe(ends) == 0) g_script_input = ends[1];
  dup2(ends[0], STDIN_FILENO);
  fake::Platform& platform = fake::platform();
  platform.monotonicAhead = 3600;  // an end that needs a deadline to pass is no end
  platform.onLine = [](const std::string& line) { say(line), sayTo(g_script_input, "\n"); };
  platform.onRelease = [] { sleep_for(milliseconds(300)), say("released"); };
  platform.onPause = [] { return say("pauses"), reach(At::pause), false; };
  platform.onInitiate = [](fake::Request&) { return say("submits"), reach(At::submission), true; };
  platform.onFinish = [](fake::Request&) { say("finishes"), reach(At::finish); };
  pthread_atfork([] { reach(At::fork); }, nullptr, [] { reach(At::forkedChild); });
  checkSingleInstance();
  startShutdownThreads();
  for (const int signum : {SIGTERM, SIGQUIT, SIGINT, SIGHUP}) signal(signum, shutdownHandler);
  reach(At::start);
}

const auto run = [](const char* script) { (void)zelo::runCommand({"/bin/sh", "-c", script}); };
const auto program = [] { run("echo starts >&2"); };
// Goes on once the line has been written.
const auto terminatingProgram = [] { run("kill -TERM $PPID; read line; sleep 0.6; echo goes on >&2"); };
const auto onePause = [] { zelo::sleepSeconds(1); };
const auto download = [] { zelo::TransferWrapper("https://x/y", "GET", "", "/none").download(0); };
const auto actForAWhile = [] {
  fake::platform().monotonicAhead = 0;
  raise(SIGTERM), sleep_for(milliseconds(100)), say("acts"), zelo::awaitEnd();
};

[[noreturn]] void stay() {
  for (;;) pause();
}

void onAnotherThread() {
  sigset_t set;
  sigemptyset(&set);
  sigaddset(&set, SIGTERM);
  pthread_sigmask(SIG_BLOCK, &set, nullptr);
  std::thread([&] { pthread_sigmask(SIG_UNBLOCK, &set, nullptr), raise(SIGTERM); }).join();
  say(zelo::terminationSignal() == 0 ? "acts" : "noted on the other thread");
  pthread_sigmask(SIG_UNBLOCK, &set, nullptr), zelo::awaitEnd();
}

void ofAllKinds() {
  for (const int signum : {SIGINT, SIGTERM, SIGQUIT, SIGHUP}) raise(signum);
  zelo::awaitEnd();
}

void stuckPlatform() {
  fake::platform().monotonicAhead = 0;
  raise(SIGTERM), stay();
}

void slowRelease() {
  fake::platform().monotonicAhead = 0;
  fake::platform().onRelease = [] {
    raise(SIGTERM);
    char line = 0;
    for (int lines = 0; lines < 2 && read(STDIN_FILENO, &line, 1) == 1; ++lines) continue;
    sleep_for(milliseconds(300)), say("released");
  };
  shutdownHandler(0), stay();
}

void blockedLog() {
  fake::platform().monotonicAhead = 0;
  fake::platform().onLine = [](const std::string&) { stay(); };
  raise(SIGTERM), zelo::awaitEnd();
}

const auto goingDown = [](int signum) {
  return "<5> I def:zeloinstall:signum=" + std::to_string(signum) + ":We're going down...";
};

// Nothing begins once the line is written, and the main thread does not come back.
TEST_F(Frame, ATerminationSignalEndsTheProcess) {
  const std::string line = goingDown(SIGTERM);
  const std::string end = "signal 15";
  const struct {
    const char* name;
    At at;
    void (*act)();
    Texts said;
  } rows[] = {
      {"before a program", At::start, program, {line, "released", end}},
      {"between gate and fork", At::fork, program, {line, "released", end}},
      {"in the forked child: its own", At::forkedChild, program, {"comes back", "exit 0"}},
      {"in a program", At::never, terminatingProgram, {line, "goes on\n", "released", end}},
      {"before a pause", At::start, onePause, {line, "released", end}},
      {"in a pause", At::pause, onePause, {"pauses", line, "released", end}},
      {"before a download's wait", At::submission, download, {"submits", line, "released", end}},
      {"in a download", At::finish, download, {"submits", "finishes", line, "released", end}},
      {"while the main thread acts", At::never, actForAWhile, {"acts", line, "released", end}},
      {"while the platform keeps it", At::never, stuckPlatform, {line, "released", end}},
      {"just before the end", At::start, [] { shutdownHandler(0); }, {line, "released", end}},
      {"in the last step", At::never, slowRelease, {goingDown(0), line, "released", end}},
      {"on another thread", At::never, onAnotherThread, {"acts", line, "released", end}},
      {"of all kinds", At::never, ofAllKinds, {goingDown(SIGINT), "released", "signal 2"}},
      {"while the log blocks", At::never, blockedLog, {"released", end}},
  };
  for (const auto& row : rows) {
    g_signal_at = row.at;
    EXPECT_EQ(inChild([&] { startFrame(), row.act(), say("comes back"); }), row.said) << row.name;
  }
}

TEST_F(Frame, AFaultOnItsThreadsReachesTheCrashDumps) {
  static int fault = 0;
  g_signal_at = At::never;
  for (const int signum : {SIGSEGV, SIGBUS, SIGFPE, SIGILL, SIGSYS, SIGTRAP, SIGABRT}) {
    fault = signum;
    const Texts said = inChild([] {
      startFrame();
      signal(fault, [](int) { say("dump"), _exit(3); });
      fake::platform().onRelease = [] { raise(fault); };
      raise(SIGTERM), zelo::awaitEnd();
    });
    EXPECT_EQ(said, (Texts{goingDown(SIGTERM), "dump", "exit 3"})) << signum;
  }
}

TEST_F(Frame, AStartThatFailsEndsWithStatusOne) {
  const std::string ending = "<3> E def:zeloinstall:main:ending with status 1: ";
  const auto failWhileTheLogBlocks = [] {
    fake::platform().onLine = [](const std::string&) { stay(); };
    sigset_t all;
    sigfillset(&all);
    pthread_sigmask(SIG_SETMASK, &all, nullptr);
    throw 5;
  };
  const std::pair<void (*)(), Texts> rows[] = {
      {[] { (void)std::stoi("x"); }, {ending + "stoi", "exit 1"}},
      {[] { throw 5; }, {ending + "unknown exception", "exit 1"}},
      {[] { std::terminate(); }, {ending + "terminated without an exception", "exit 1"}},
      {[] { throw AnotherInstance(); }, {"exit 1"}},
      {[] { std::abort(); }, {"exit 1"}},
      {failWhileTheLogBlocks, {"exit 1"}}};
  for (const auto& [fail, expected] : rows) {
    const auto start = std::chrono::steady_clock::now();
    const Texts said = inChild([action = fail] {
      fake::platform().onLine = say;
      zelo::endOnUncaughtExceptions();
      action();
    });
    EXPECT_EQ(said, expected);
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(15)) << "the log blocks it";
  }
}

}  // namespace
