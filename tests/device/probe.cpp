/// An interpreter for run.sh that looks around instead: writes what a started program finds to
/// /tmp/probe.out, as JSON.

#include <fcntl.h>
#include <unistd.h>

#include <climits>
#include <csignal>
#include <cstdio>
#include <string>
#include <vector>

namespace {

constexpr int lastDescriptor = 4095;

std::string list(const std::vector<int>& numbers) {
  std::string text;
  for (const int number : numbers) text += (text.empty() ? "" : ", ") + std::to_string(number);
  return "[" + text + "]";
}

// Control characters do not occur here.
std::string quoted(const std::string& text) {
  std::string result = "\"";
  for (const char c : text) {
    if (c == '"' || c == '\\') result += '\\';
    result += c;
  }
  return result + "\"";
}

std::string list(char* const* texts) {
  std::string text;
  for (; *texts != nullptr; ++texts) text += (text.empty() ? "" : ", ") + quoted(*texts);
  return "[" + text + "]";
}

}  // namespace

int main(int /*count*/, char* argv[]) {
  std::vector<int> descriptors;
  for (int fd = 0; fd <= lastDescriptor; ++fd)
    if (fcntl(fd, F_GETFD) >= 0) descriptors.push_back(fd);

  std::vector<int> blocked;
  std::vector<int> ignored;
  sigset_t mask;
  sigprocmask(SIG_SETMASK, nullptr, &mask);
  for (int signum = 1; signum <= SIGRTMAX; ++signum) {
    struct sigaction action {};
    if (sigaction(signum, nullptr, &action) == 0 && action.sa_handler == SIG_IGN) ignored.push_back(signum);
    if (sigismember(&mask, signum) == 1) blocked.push_back(signum);
  }

  char cwd[PATH_MAX];
  if (getcwd(cwd, sizeof cwd) == nullptr) return 1;

  std::FILE* out = std::fopen("/tmp/probe.out", "w");
  if (out == nullptr) return 1;
  std::fprintf(out,
               "{\"argv\": %s, \"environ\": %s, \"cwd\": %s, \"descriptors\": %s, \"blocked\": %s, "
               "\"ignored\": %s}\n",
               list(argv).c_str(), list(environ).c_str(), quoted(cwd).c_str(), list(descriptors).c_str(),
               list(blocked).c_str(), list(ignored).c_str());
  return std::fclose(out) == 0 ? 0 : 1;
}
