#include <grp.h>
#include <linux/filter.h>
#include <linux/seccomp.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <sys/time.h>

#include <cerrno>
#include <csignal>
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
const Texts listDescriptors{"/bin/ls", "/proc/self/fd"};
const Texts lookFor63 = shell("[ -e /proc/self/fd/63 ] || echo closed");
const std::string three = "0\n1\n2\n3\n";  // and the one that serves for listing them

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

// Descriptors that are not close-on-exec, most of them beyond the limit; below it two pipes have room.
void openMany() {
  for (int fd = 3; fd < 7; ++fd) close(fd);
  for (int fd = 7; fd < 520; ++fd) dup2(STDIN_FILENO, fd == childsVoice ? 7 : fd);
  limit(RLIMIT_NOFILE, 64);
}

// As on kernels without the call. Opening with any of the flags fails, too; under an emulator nothing
// changes.
void forbidCloseRange(unsigned openFlags) {
  sock_filter steps[] = {BPF_STMT(BPF_LD | BPF_W | BPF_ABS, offsetof(seccomp_data, nr)),
                         BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, 436, 3, 0),
                         BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, SYS_openat, 0, 3),
                         BPF_STMT(BPF_LD | BPF_W | BPF_ABS, offsetof(seccomp_data, args[2])),
                         BPF_JUMP(BPF_JMP | BPF_JSET | BPF_K, openFlags, 0, 1),
                         BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ERRNO | ENOSYS),
                         BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ALLOW)};
  const sock_fprog program{std::size(steps), steps};
  prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0);
  prctl(PR_SET_SECCOMP, SECCOMP_MODE_FILTER, &program);
}

void imitateOldKernel() {
  openMany();
  forbidCloseRange(0);
}

void hideListOfDescriptors() {
  openMany();
  forbidCloseRange(O_DIRECTORY);
}

// The daemon has put SIGPIPE right by then.
void closeReaderOfErrors() {
  zelo::repairInheritedState();
  int ends[2] = {-1, -1};
  if (pipe(ends) == 0) dup2(ends[1], STDERR_FILENO);
  close(ends[0]);
  close(ends[1]);
}

void discardChildren() {
  struct sigaction action = {};
  action.sa_flags = SA_NOCLDWAIT;
  sigaction(SIGCHLD, &action, nullptr);
}

void interruptAllTheTime() {
  struct sigaction action = {};
  action.sa_handler = [](int) {};
  sigaction(SIGALRM, &action, nullptr);
  const itimerval every{{0, 10000}, {0, 10000}};
  setitimer(ITIMER_REAL, &every, nullptr);
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
      {"SIGCHLD ignored", [] { signal(SIGCHLD, SIG_IGN); }, echo, "text\n"},
      {"children discarded", discardChildren, echo, "text\n"},
      {"SIGPIPE ignored", [] { signal(SIGPIPE, SIG_IGN); }, shell("echo a; kill -PIPE $$; echo b"), "a\n"},
      {"interruptions", interruptAllTheTime, shell("sleep 0.1; echo a; exec >&-; sleep 0.1"), "a\n"},
      {"many descriptors", openMany, listDescriptors, three},
      {"old kernel", imitateOldKernel, listDescriptors, three},
      {"no list", hideListOfDescriptors, lookFor63, "closed\n"},
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
