#include <grp.h>
#include <linux/filter.h>
#include <linux/seccomp.h>
#include <sys/prctl.h>
#include <sys/resource.h>

#include <cerrno>
#include <cstddef>
#include <iterator>

#include "tests/unit/in_child.h"
#include "utils/command_runner.h"
#include "utils/inherited_state.h"

using zelo::runCommand;

namespace {

Texts shell(const std::string& script) {
  return {"/bin/sh", "-c", script};
}

const Texts echo{"/bin/echo", "text"};

TEST(CommandRunner, ReturnsWhatTheProgramPrints) {
  const std::string manyBytes = "i=0; while [ $i -lt 1000 ]; do printf 0123456789; i=$((i+1)); done";
  EXPECT_EQ(runCommand(shell("printf 'a\\0b'")), std::string("a\0b", 3));
  EXPECT_EQ(runCommand(shell(manyBytes)).size(), 10000U);
  EXPECT_EQ(runCommand(shell("echo before; kill -9 $$")), "before\n") << "killed by a signal: a success";
  EXPECT_EQ(runCommand({"/bin/echo", "a b", "", "$HOME", "*"}), "a b  $HOME *\n") << "no shell";
  EXPECT_EQ(runCommand({"/usr/bin/env"}), "") << "no environment";
}

TEST(CommandRunner, FailsWithOneTextAndLeavesNothing) {
  const std::string failed = "failed to execute command";
  const int before = dup(0);
  close(before);
  for (const Texts& row : {Texts{}, {""}, {"mv"}, {"/tmp"}, shell("echo text; exit 2"), shell("exit 255")}) {
    EXPECT_EQ(failureOf([&] { (void)runCommand(row); }), failed) << testing::PrintToString(row);
  }
  EXPECT_EQ(inChild([] { say(failureOf([] { (void)runCommand({"/none"}); })); }),
            (Texts{"execve: No such file or directory\n", failed, "exit 0"}));
  EXPECT_EQ(dup(0), before) << "descriptors";
  EXPECT_EQ(waitpid(-1, nullptr, WNOHANG), -1) << "processes";
  EXPECT_EQ(errno, ECHILD);
  close(before);
}

void limit(__rlimit_resource resource, rlim_t value) {
  const rlimit both{value, value};
  setrlimit(resource, &both);
}

// No close_range, which does nothing under an emulator. Descriptors that are not close-on-exec, most of them
// beyond the limit; below it two pipes have room.
void imitateOldKernel() {
  for (int fd = 3; fd < 7; ++fd) close(fd);
  for (int fd = 7; fd < 520; ++fd) dup2(STDIN_FILENO, fd == childsVoice ? 7 : fd);
  limit(RLIMIT_NOFILE, 64);

  sock_filter steps[] = {BPF_STMT(BPF_LD | BPF_W | BPF_ABS, offsetof(seccomp_data, nr)),
                         BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, 436, 0, 1),
                         BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ERRNO | ENOSYS),
                         BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ALLOW)};
  const sock_fprog program{std::size(steps), steps};
  prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0);
  prctl(PR_SET_SECCOMP, SECCOMP_MODE_FILTER, &program);
}

// The daemon has put SIGPIPE right by then.
void closeReaderOfErrors() {
  zelo::repairInheritedState();
  int ends[2] = {-1, -1};
  if (pipe(ends) == 0) dup2(ends[1], STDERR_FILENO);
  close(ends[0]);
  close(ends[1]);
}

void forbidProcesses() {
  if (geteuid() == 0 && (setgroups(0, nullptr) != 0 || setuid(64999) != 0)) say("still root");
  limit(RLIMIT_NPROC, 0);
}

TEST(CommandRunner, WorksAndFailsInOddProcesses) {
  const struct {
    const char* name;
    void (*prepare)();
    Texts command;
    std::string outcome;
  } rows[] = {
      {"old kernel", imitateOldKernel, {"/bin/ls", "/proc/self/fd"}, "0\n1\n2\n3\n"},  // 3 lists them
      {"no descriptors", [] { limit(RLIMIT_NOFILE, 3); }, echo, "unable to create pipes for reading stdout"},
      {"nobody reads errors", closeReaderOfErrors, {"/none"}, "failed to execute command"},
      {"nobody reads its words", closeReaderOfErrors, shell("echo a >&2; echo b"), "b\n"},
      {"no processes", forbidProcesses, echo, "unable to fork"},
  };
  for (const auto& row : rows) {
    const Texts said = inChild([&] {
      row.prepare();
      say(failureOf([&] { say(runCommand(row.command)); }));
    });
    EXPECT_EQ(said, (Texts{row.outcome, "exit 0"})) << row.name;
  }
}

}  // namespace
