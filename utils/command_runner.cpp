#include "utils/command_runner.h"

#include <dirent.h>
#include <fcntl.h>
#include <poll.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <charconv>
#include <climits>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <stdexcept>
#include <utility>

#include "utils/file_descriptor.h"
#include "utils/termination.h"

namespace zelo {
namespace {

// The number of close_range, which kernels have since 5.9 and older headers lack. ARM and x86 use the same.
constexpr long closeRange = 436;

// The system may be set to discard exit statuses: by a starter that ignores SIGCHLD, or by a library.
void keepExitStatuses() {
  struct sigaction action = {};
  if (sigaction(SIGCHLD, nullptr, &action) != 0) return;
  if (action.sa_handler == SIG_IGN) action.sa_handler = SIG_DFL;
  action.sa_flags &= ~SA_NOCLDWAIT;
  (void)sigaction(SIGCHLD, &action, nullptr);
}

// For the forked child: in the parent, the libraries' threads could open more at the same time.
void closeDescriptorsFrom(int first) {
  if (syscall(closeRange, first, UINT_MAX, 0) == 0) return;

  (void)close(first);  // makes room to open the list
  const int directory = open("/proc/self/fd", O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  if (directory < 0) {
    rlimit limit{};
    (void)getrlimit(RLIMIT_NOFILE, &limit);
    for (int fd = first; fd < static_cast<int>(limit.rlim_cur); ++fd) (void)close(fd);
    return;
  }
  alignas(dirent64) char entries[4096];
  ssize_t size = 0;
  while ((size = getdents64(directory, entries, sizeof entries)) > 0) {
    for (ssize_t at = 0; at < size;) {
      const auto* entry = reinterpret_cast<const dirent64*>(entries + at);
      int fd = -1;
      (void)std::from_chars(entry->d_name, entry->d_name + std::strlen(entry->d_name), fd);
      if (fd >= first && fd != directory) (void)close(fd);
      at += entry->d_reclen;
    }
  }
}

// For the forked child. If nobody reads standard error, the program's first message there would kill it by
// SIGPIPE, which would count as success.
void replaceUnreadStandardError() {
  pollfd error{STDERR_FILENO, 0, 0};
  if (poll(&error, 1, 0) != 1 || (error.revents & (POLLERR | POLLHUP)) == 0) return;
  const int nothing = open("/dev/null", O_WRONLY | O_CLOEXEC);
  if (nothing >= 0) (void)dup2(nothing, STDERR_FILENO);
}

// Runs in the forked child: async-signal-safe calls only. If the child cannot become the program, it writes
// the error number to `launch`; if it can, the system closes `launch`.
[[noreturn]] void becomeProgram(char* const arguments[], int output, int launch) {
  if (terminationSignal() != 0) _exit(EXIT_FAILURE);  // noted just before the fork
  (void)signal(SIGPIPE, SIG_DFL);                     // libraries ignore it for the daemon
  replaceUnreadStandardError();
  const bool redirected = dup2(output, STDOUT_FILENO) >= 0;
  constexpr int lastKept = STDERR_FILENO + 1;
  const int kept = launch == lastKept ? launch : dup3(launch, lastKept, O_CLOEXEC);
  if (redirected && kept >= 0) {
    closeDescriptorsFrom(lastKept + 1);
    char* const environment[] = {nullptr};
    execve(arguments[0], arguments, environment);
  }
  const int error = errno;
  [[maybe_unused]] const ssize_t written = write(kept >= 0 ? kept : launch, &error, sizeof error);
  _exit(EXIT_FAILURE);
}

// A forked child; the destructor reaps it if nothing has before.
struct Child {
  pid_t pid = -1;

  Child() = default;
  Child(const Child&) = delete;
  Child& operator=(const Child&) = delete;
  ~Child() {
    if (pid > 0) (void)wait();
  }

  // True if the child exited with status 0 or was killed by a signal.
  [[nodiscard]] bool wait() noexcept {
    int status = 0;
    pid_t reaped = -1;
    do {
      reaped = waitpid(pid, &status, 0);
    } while (reaped < 0 && errno == EINTR);
    pid = -1;
    return reaped >= 0 && !(WIFEXITED(status) && WEXITSTATUS(status) != 0);
  }
};

struct Pipe {
  FileDescriptor readEnd;
  FileDescriptor writeEnd;
};

[[nodiscard]] Pipe openPipe() {
  int ends[2];
  if (pipe2(ends, O_CLOEXEC) != 0) throw std::runtime_error("unable to create pipes for reading stdout");
  return {FileDescriptor(ends[0]), FileDescriptor(ends[1])};
}

[[nodiscard]] std::string readToEnd(int fd) {
  std::string output;
  std::array<char, 100> buffer{};
  for (;;) {
    const ssize_t count = read(fd, buffer.data(), buffer.size());
    if (count > 0) {
      output.append(buffer.data(), static_cast<std::size_t>(count));
    } else if (count == 0 || errno != EINTR) {
      return output;
    }
  }
}

// Returns 0 when the child has become its program, or the number of the error that kept it from that.
[[nodiscard]] int awaitLaunch(int launch) {
  int error = 0;
  while (read(launch, &error, sizeof error) < 0 && errno == EINTR) {
  }
  return error;
}

struct Outcome {
  int launchError;
  std::string output;
  bool succeeded;
};

// Does not return once a termination signal has arrived: if the same signal has killed the program, that must
// not count as success.
[[nodiscard]] Outcome runToItsEnd(char* const arguments[]) {
  keepExitStatuses();
  Wait wait(Wait::program);

  // Before the pipes: an exception then closes them first, so that a child that writes ends.
  Child child;
  Pipe output = openPipe();
  Pipe launch = openPipe();

  child.pid = fork();
  if (child.pid < 0) throw std::runtime_error("unable to fork");
  if (child.pid == 0) becomeProgram(arguments, output.writeEnd.get(), launch.writeEnd.get());

  output.writeEnd.close();
  launch.writeEnd.close();
  const int launchError = awaitLaunch(launch.readEnd.get());
  wait.programRuns();
  std::string text = readToEnd(output.readEnd.get());
  return {launchError, std::move(text), child.wait()};
}

}  // namespace

std::string runProcess(char* const arguments[]) {
  Outcome outcome = runToItsEnd(arguments);
  if (outcome.launchError != 0) {
    errno = outcome.launchError;
    std::perror("execve");
  }
  if (!outcome.succeeded) throw std::runtime_error("failed to execute command");
  return std::move(outcome.output);
}

std::string runCommand(std::vector<std::string> arguments) {
  std::vector<char*> pointers;
  pointers.reserve(arguments.size() + 1);
  for (std::string& argument : arguments) pointers.push_back(argument.data());
  pointers.push_back(nullptr);
  return runProcess(pointers.data());
}

}  // namespace zelo
