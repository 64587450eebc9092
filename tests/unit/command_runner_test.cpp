#include <fcntl.h>
#include <grp.h>
#include <pthread.h>
#include <sys/resource.h>
#include <sys/time.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <csignal>

#include "tests/unit/expect_failure.h"
#include "utils/command_runner.h"
#include "utils/file_descriptor.h"
#include "utils/inherited_state.h"
#include "utils/termination.h"

using zelo::runCommand;

namespace {

using Error = std::runtime_error;
constexpr const char* failed = "failed to execute command";

std::string shell(const std::string& script) {
  return runCommand({"/bin/sh", "-c", script});
}

TEST(CommandRunner, ReturnsWhatTheProgramPrints) {
  EXPECT_EQ(shell("echo one line"), "one line\n");
  EXPECT_EQ(shell("printf 'a\\0b'"), std::string("a\0b", 3));
  EXPECT_EQ(shell("i=0; while [ $i -lt 1000 ]; do printf 0123456789; i=$((i+1)); done").size(), 10000U);
  EXPECT_EQ(shell("echo before; kill -9 $$"), "before\n") << "an end by a signal is a success";
  EXPECT_EQ(runCommand({"/bin/echo", "a b", "", "$HOME", "*"}), "a b  $HOME *\n") << "no shell";
  EXPECT_EQ(runCommand({"/usr/bin/env"}), "") << "no environment";
}

TEST(CommandRunner, FailsWithTheRunnersText) {
  const std::vector<std::string> rows[] = {{},
                                           {""},
                                           {"/bin/false"},
                                           {"mv"},
                                           {"/none"},
                                           {"/tmp"},
                                           {"/dev/null"},
                                           {"/bin/sh", "-c", "echo text; exit 2"},
                                           {"/bin/sh", "-c", "exit 255"}};
  for (const auto& row : rows) {
    EXPECT_EQ(failureOf<Error>([&] { (void)runCommand(row); }), failed) << testing::PrintToString(row);
  }
  testing::internal::CaptureStderr();
  EXPECT_THROW((void)runCommand({"/none"}), Error);
  EXPECT_EQ(testing::internal::GetCapturedStderr(), "execve: No such file or directory\n");
}

TEST(CommandRunner, LeavesNothingBehind) {
  const int before = dup(0);
  close(before);
  (void)shell("true");
  EXPECT_THROW((void)runCommand({"/none"}), Error);
  const int after = dup(0);
  close(after);
  EXPECT_EQ(before, after) << "descriptors";
  EXPECT_EQ(waitpid(-1, nullptr, WNOHANG), -1);
  EXPECT_EQ(errno, ECHILD);
}

TEST(CommandRunner, StartsProgramsWithThreeDescriptors) {
  const zelo::FileDescriptor leaky(dup(0));  // not close-on-exec
  EXPECT_EQ(shell("i=3; while [ $i -lt 64 ]; do (: <&$i) 2>/dev/null && echo $i; i=$((i+1)); done"), "");
}

// Each row in a process of its own: the limits and descriptors are the process's.
template <typename Prepare>
void expectInChild(const char* what, Prepare prepare, const std::string& expected) {
  EXPECT_EXIT(
      {
        prepare();
        std::string outcome;
        try {
          outcome = runCommand({"/bin/echo", "text"});
        } catch (const std::exception& error) {
          outcome = error.what();
        }
        _exit(outcome == expected ? 0 : 1);
      },
      testing::ExitedWithCode(0), "")
      << what;
}

TEST(CommandRunner, WorksAndFailsInOddProcesses) {
  expectInChild(
      "no standard output", [] { close(1); }, "text\n");
  expectInChild(
      "pipe on 0 and 1", [] { close(0), close(1); }, "text\n");
  expectInChild(
      "pipe on 1 and 2", [] { close(1), close(2); }, "text\n");
  expectInChild(
      "SIGCHLD ignored", [] { signal(SIGCHLD, SIG_IGN); }, "text\n");
  expectInChild(
      "interrupted waits",
      [] {
        struct sigaction action {};
        action.sa_handler = [](int) {};
        sigaction(SIGALRM, &action, nullptr);
        const itimerval every{{0, 100}, {0, 100}};
        setitimer(ITIMER_REAL, &every, nullptr);
      },
      "text\n");
  expectInChild(
      "no descriptors",
      [] {
        const rlimit limit{3, 3};
        setrlimit(RLIMIT_NOFILE, &limit);
      },
      "unable to create pipes for reading stdout");
  expectInChild(
      "no processes",
      [] {
        if (geteuid() == 0 && (setgroups(0, nullptr) != 0 || setuid(64999) != 0)) _exit(2);
        const rlimit limit{0, 0};
        setrlimit(RLIMIT_NPROC, &limit);
      },
      "unable to fork");
}

TEST(CommandRunner, InheritedStateIsPutRight) {
  EXPECT_EXIT(
      {
        for (int fd = 0; fd < 3; ++fd) close(fd);
        signal(SIGCHLD, SIG_IGN);
        signal(SIGHUP, SIG_IGN);
        signal(SIGPIPE, SIG_IGN);
        sigset_t all;
        sigfillset(&all);
        sigprocmask(SIG_SETMASK, &all, nullptr);
        zelo::repairInheritedState();
        const std::string seen = runCommand({"/bin/grep", "-E", "Sig(Blk|Ign)", "/proc/self/status"});
        _exit(seen == "SigBlk:\t0000000000000000\nSigIgn:\t0000000000000000\n" ? 0 : 1);
      },
      testing::ExitedWithCode(0), "");
}

void terminate(int signum = SIGTERM) {
  (void)zelo::noteTerminationSignal(signum);
}

TEST(ProgramGate, NoProgramStartsOrSucceedsOnceASignalHasArrived) {
  const struct {
    const char* when;
    void (*prepare)();
    bool started;
    const char* script = "echo started >&2";
  } rows[] = {{"before", [] { terminate(); }, false},
              {"between gate and fork", [] { pthread_atfork([] { terminate(); }, nullptr, nullptr); }, false},
              {"while it runs",
               [] {
                 pthread_atfork(
                     nullptr, [] { terminate(); }, nullptr);
               },
               true}};
  for (const auto& row : rows) {
    int ends[2];
    ASSERT_EQ(pipe(ends), 0);
    const pid_t pid = fork();
    if (pid == 0) {
      dup2(ends[1], 2);
      row.prepare();
      const itimerval soon{{0, 0}, {0, 300000}};
      setitimer(ITIMER_REAL, &soon, nullptr);
      (void)shell(row.script);
      _exit(0);  // must not get here
    }
    close(ends[1]);
    int status = 0;
    waitpid(pid, &status, 0);
    char text[16];
    EXPECT_EQ(read(ends[0], text, sizeof text) > 0, row.started) << row.when;
    close(ends[0]);
    EXPECT_TRUE(WIFSIGNALED(status) && WTERMSIG(status) == SIGALRM) << row.when;
  }
}

}  // namespace
