#include "utils/files.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <exception>
#include <stdexcept>

#include "utils/command_runner.h"
#include "utils/file_descriptor.h"
#include "utils/paths.h"
#include "utils/termination.h"

namespace zelo {
namespace {

constexpr mode_t ownerOnly = 0700;
constexpr mode_t defaultPermissions = 0666;

[[nodiscard]] bool isRegularFile(int fd) {
  struct stat status = {};
  return fstat(fd, &status) == 0 && S_ISREG(status.st_mode);
}

}  // namespace

std::string createTempDirectory() {
  char path[] = "/tmp/zeloinstall.XXXXXX";
  if (mkdtemp(path) != nullptr) return path;
  const int error = errno;
  throw std::runtime_error("unable to create temp directory. errno " + std::to_string(error));
}

void makeDirectory(const std::string& path) {
  if (mkdir(path.c_str(), ownerOnly) == 0 || errno == EEXIST) return;
  const int error = errno;
  throw std::runtime_error("unable to create directory " + path + " errno " + std::to_string(error));
}

std::string readFile(const std::string& path) noexcept try {
  // Non-blocking, because opening a FIFO would wait for a writer.
  const FileDescriptor file(open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK));
  if (!file.valid() || !isRegularFile(file.get())) return {};
  std::string content;
  std::array<char, 16384> buffer;
  for (;;) {
    const ssize_t count = read(file.get(), buffer.data(), buffer.size());
    if (count > 0) {
      content.append(buffer.data(), static_cast<std::size_t>(count));
    } else if (count == 0 || errno != EINTR) {
      return content;
    }
  }
} catch (const std::exception&) {
  return {};  // does not fit into memory
}

void writeFile(const std::string& path, const std::string& content) noexcept {
  const int flags = O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC;
  const FileDescriptor file(open(path.c_str(), flags, defaultPermissions));
  if (!file.valid()) return;
  std::size_t written = 0;
  while (written < content.size()) {
    const ssize_t count = write(file.get(), content.data() + written, content.size() - written);
    if (count > 0) {
      written += static_cast<std::size_t>(count);
    } else if (count == 0 || errno != EINTR) {
      return;
    }
  }
}

std::string moveFile(const std::string& source, const std::string& directory) {
  makeDirectory(directory);
  std::string target = joinPath(directory, getFileName(source));
  (void)runCommand({"/bin/mv", source, target});
  return target;
}

void sleepSeconds(std::uint32_t seconds) {
  using std::chrono::microseconds;
  using std::chrono::steady_clock;
  const Wait wait(Wait::event);
  std::uint32_t rest = seconds * 1000000U;
  const auto end = steady_clock::now() + microseconds(rest);
  while (usleep(rest) != 0 && errno == EINTR) {
    const auto left = std::chrono::duration_cast<microseconds>(end - steady_clock::now());
    rest = static_cast<std::uint32_t>(std::max(left, microseconds::zero()).count());
  }
}

}  // namespace zelo
