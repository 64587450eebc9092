#pragma once

#include <fcntl.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include "tests/unit/expect_failure.h"

constexpr int childsVoice = 90;  // a descriptor

/// For the body of `inChild`, also after it has closed standard error; "" is the end.
inline void say(const std::string& text) {
  [[maybe_unused]] const ssize_t written = write(childsVoice, text.data(), text.size());
}

/// Runs `body` in a forked process. Yields what that wrote to standard error, one text for each write, and
/// how it ended: "exit 3", "signal 15". One that hangs is ended by SIGALRM.
template <typename Body>
Texts inChild(Body body) {
  int ends[2];
  if (socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, ends) != 0) return {"no sockets"};
  const pid_t pid = fork();
  if (pid == 0) {
    alarm(30);
    dup2(ends[1], STDERR_FILENO);
    dup3(ends[1], childsVoice, O_CLOEXEC);
    close(ends[0]);
    close(ends[1]);
    [&]() noexcept { body(); }();
    _exit(0);
  }
  close(ends[1]);
  Texts texts;
  char text[4096];
  for (ssize_t size = 0; (size = read(ends[0], text, sizeof text)) > 0;)
    texts.emplace_back(text, static_cast<std::size_t>(size));
  close(ends[0]);
  int status = 0;
  waitpid(pid, &status, 0);
  texts.push_back(WIFSIGNALED(status) ? "signal " + std::to_string(WTERMSIG(status))
                                      : "exit " + std::to_string(WEXITSTATUS(status)));
  return texts;
}
