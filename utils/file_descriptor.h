#pragma once

#include <unistd.h>

#include <utility>

namespace zelo {

/// Owns one open descriptor and closes it.
class FileDescriptor {
 public:
  explicit FileDescriptor(int opened) noexcept : fd(opened) {}
  FileDescriptor(FileDescriptor&& other) noexcept : fd(std::exchange(other.fd, -1)) {}
  FileDescriptor(const FileDescriptor&) = delete;
  FileDescriptor& operator=(const FileDescriptor&) = delete;
  ~FileDescriptor() { close(); }

  [[nodiscard]] int get() const noexcept { return fd; }
  [[nodiscard]] bool valid() const noexcept { return fd >= 0; }

  /// Closes it now instead of in the destructor.
  void close() noexcept {
    if (valid()) (void)::close(std::exchange(fd, -1));
  }

 private:
  int fd;
};

}  // namespace zelo
