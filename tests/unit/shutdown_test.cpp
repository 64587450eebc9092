#include <fcntl.h>
#include <pthread.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>

#include "main/notify_error.h"
#include "main/pipeline.h"
#include "main/shutdown.h"
#include "main/single_instance.h"
#include "main/uncaught.h"
#include "main/zelo_exception.h"
#include "platform/qorvex_daemon.h"
#include "tests/unit/expect_failure.h"
#include "tests/unit/fake_platform.h"
#include "utils/command_runner.h"
#include "utils/termination.h"

using zelo::ZeloException;

namespace {

constexpr const char* failed = "failed to execute command";

class Frame : public testing::Test {
 protected:
  void SetUp() override { fake::reset(); }
  void TearDown() override { fake::reset(); }
  fake::Platform& platform = fake::platform();
};

TEST_F(Frame, ExceptionsCarryCodeAndText) {
  const ZeloException error("02", "download failed");
  const ZeloException copy = error;  // NOLINT(performance-unnecessary-copy-initialization)
  EXPECT_STREQ(copy.what(), "zelo exception: download failed. code=02");
  EXPECT_EQ(copy.getCode(), "02");
  EXPECT_STREQ(ZeloException("", "").what(), "zelo exception: . code=");
  EXPECT_STREQ(ZeloException("00", "Verification Failure\n").what(),
               "zelo exception: Verification Failure\n. code=00");
  EXPECT_FALSE((std::is_base_of_v<std::runtime_error, ZeloException>));
}

// The bus's tools are not on the machine that runs the tests, so the notification itself fails.
TEST_F(Frame, FailuresAreLoggedBeforeTheyAreSent) {
  ASSERT_NE(access("/usr/bin/kbus-set-prop", F_OK), 0);
  testing::internal::CaptureStderr();
  EXPECT_EQ(failureOf<std::runtime_error>([] { zelo::notifyError(ZeloException("03", failed)); }), failed);
  EXPECT_EQ(platform.log.back(),
            "<3> E def:zeloinstall:zeloutils:zelo exception: failed to execute command. code=03");
  platform.settings["zelo.installer.download.retries"] = "-1";
  platform.settings["url.zelo.installer.metadata"] = "https://x/";
  EXPECT_EQ(failureOf<std::runtime_error>([] { zelo::runPipeline(); }), failed);
  EXPECT_EQ(platform.log.back(), "<3> E def:zeloinstall:zeloutils:zelo exception: illegal state. code=99");
  EXPECT_EQ(fake::count(platform.log, "<5> I def:zeloinstall:main:Downloading metadata"), 1);
  (void)testing::internal::GetCapturedStderr();
}

TEST_F(Frame, OtherExceptionsPassThePipeline) {
  platform.settings["zelo.installer.download.retries"] = "many";
  EXPECT_EQ(failureOf<std::invalid_argument>([] { zelo::runPipeline(); }), "stoi");
  EXPECT_EQ(fake::count(platform.log, "<3>"), 0);
}

TEST_F(Frame, TheLockIsReleasedOnce) {
  for (const int handle : {0, 7}) {
    platform.calls.clear();
    platform.lockHandle = handle;
    checkSingleInstance();
    for (int i = 0; i < 2; ++i) shutdownHandler(0);
    EXPECT_EQ(platform.calls,
              (std::vector<std::string>{"check /var/run/zeloinstall.pid",
                                        "clean /var/run/zeloinstall.pid " + std::to_string(handle)}));
  }
  EXPECT_EQ(platform.log.front(), "<5> I def:zeloinstall:signum=0:We're going down...");
}

TEST_F(Frame, ASecondInstanceIsRefused) {
  for (const int refusal : {-1, -7}) {
    platform.calls.clear();
    platform.lockHandle = refusal;
    EXPECT_EQ(failureOf<std::runtime_error>(checkSingleInstance),
              "one more instance of zeloinstall is running.");
    EXPECT_EQ(platform.calls.back(), "clean /var/run/zeloinstall.pid " + std::to_string(refusal));
  }
  EXPECT_EQ(platform.log.front(),
            "<5> I def:zeloinstall:main:one more instance of zeloinstall is running. Exiting");
}

// As the entry does; in a process of its own.
void startFrame() {
  checkSingleInstance();
  startShutdownThreads();
  for (const int signum : {SIGTERM, SIGQUIT, SIGINT, SIGHUP}) signal(signum, shutdownHandler);
}

TEST_F(Frame, TerminationSignalsEndTheProcessByThemselves) {
  for (const int signum : {SIGTERM, SIGQUIT, SIGINT, SIGHUP}) {
    EXPECT_EXIT(
        {
          startFrame();
          for (int i = 0; i < 300; ++i) kill(getpid(), i == 0 ? signum : SIGTERM);
          shutdownHandler(0);  // does not return: the signal came first
          _exit(0);
        },
        testing::KilledBySignal(signum), "");
  }
}

TEST_F(Frame, ATerminationSignalWaitsForTheRunningProgram) {
  int ends[2];
  ASSERT_EQ(pipe(ends), 0);
  const pid_t pid = fork();
  if (pid == 0) {
    startFrame();
    dup2(ends[1], 2);
    (void)zelo::runCommand({"/bin/sh", "-c", "kill -TERM $PPID; sleep 0.3; echo done >&2"});
    _exit(0);
  }
  close(ends[1]);
  int status = 0;
  waitpid(pid, &status, 0);
  EXPECT_TRUE(WIFSIGNALED(status) && WTERMSIG(status) == SIGTERM);
  fcntl(ends[0], F_SETFL, O_NONBLOCK);
  char text[8] = {};
  EXPECT_EQ(read(ends[0], text, sizeof text), 5) << "the process ended before the program";
  close(ends[0]);
}

TEST_F(Frame, ASignalToAForkedChildIsTheChildsOwn) {
  EXPECT_EXIT(
      {
        startFrame();
        pthread_atfork(nullptr, nullptr, [] { raise(SIGTERM); });
        _exit(zelo::runCommand({"/bin/echo", "started"}).empty() && zelo::terminationSignal() == 0 ? 0 : 1);
      },
      testing::ExitedWithCode(0), "");
}

TEST_F(Frame, UncaughtExceptionsEndWithStatusOne) {
  const struct {
    const char* what;
    void (*fail)();
  } rows[] = {{"stoi", [] { (void)std::stoi("x"); }},
              {"unknown exception", [] { throw 5; }},
              {"terminated without an exception", [] { std::terminate(); }}};
  for (const auto& row : rows) {
    EXPECT_EXIT(
        {
          zelo::endOnUncaughtExceptions();
          fake::logToStandardError();
          [&]() noexcept { row.fail(); }();
        },
        testing::ExitedWithCode(1), row.what);
  }
}

}  // namespace
