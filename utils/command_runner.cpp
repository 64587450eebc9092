#include "utils/command_runner.h"

#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <stdexcept>

#include "utils/file_descriptor.h"
#include "utils/inherited_state.h"
#include "utils/termination.h"

namespace zelo {
namespace {

constexpr const char* executionFailed = "failed to execute command";

// What perror would write; perror itself may allocate, which a forked child must not.
void reportExecveFailure(int error) {
  const char* reason = strerrordesc_np(error);
  if (reason == nullptr) reason = "Unknown error";
  for (const char* text : {"execve: ", reason, "\n"}) {
    if (write(STDERR_FILENO, text, std::strlen(text)) < 0) return;
  }
}

// Runs in the forked child: async-signal-safe calls only. The pipe's own descriptors are
// close-on-exec; the one duplicated onto standard output is not.
[[noreturn]] void becomeProgram(char* const arguments[], int output) {
  if (terminationSignal() != 0) _exit(EXIT_FAILURE);  // arrived between the gate and the fork
  const int redirected = output == STDOUT_FILENO ? fcntl(output, F_SETFD, 0) : dup2(output, STDOUT_FILENO);
  if (redirected >= 0) {
    char* const environment[] = {nullptr};
    execve(arguments[0], arguments, environment);
  }
  reportExecveFailure(errno);
  _exit(EXIT_FAILURE);
}

// A forked child, reaped at the latest when this is destroyed.
struct Child {
  pid_t pid = -1;

  Child() = default;
  Child(const Child&) = delete;
  Child& operator=(const Child&) = delete;
  ~Child() {
    if (pid > 0) (void)wait();
  }

  // True when the child ended with status 0 or by a signal.
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

}  // namespace

std::string runProcess(char* const arguments[]) {
  if (arguments[0] == nullptr) throw std::runtime_error(executionFailed);

  ProgramGate gate;
  closeOnExecFrom(STDERR_FILENO + 1);

  int ends[2];
  if (pipe2(ends, O_CLOEXEC) != 0) throw std::runtime_error("unable to create pipes for reading stdout");
  // Declared before the pipe: an exception closes the pipe first, which ends a child that writes.
  Child child;
  FileDescriptor readEnd(ends[0]);
  FileDescriptor writeEnd(ends[1]);

  child.pid = fork();
  if (child.pid < 0) throw std::runtime_error("unable to fork");
  if (child.pid == 0) becomeProgram(arguments, writeEnd.get());

  writeEnd.close();
  std::string output = readToEnd(readEnd.get());
  const bool succeeded = child.wait();
  gate.leave();
  if (!succeeded) throw std::runtime_error(executionFailed);
  return output;
}

std::string runCommand(std::vector<std::string> arguments) {
  std::vector<char*> pointers;
  pointers.reserve(arguments.size() + 1);
  for (std::string& argument : arguments) pointers.push_back(argument.data());
  pointers.push_back(nullptr);
  return runProcess(pointers.data());
}

}  // namespace zelo
