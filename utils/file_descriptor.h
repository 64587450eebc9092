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
  ~FileDescriptor() { (void)close(); }

  [[nodiscard]] int get() const noexcept { return fd; }
  [[nodiscard]] bool valid() const noexcept { return fd >= 0; }

  /// True unless the system reports that closing failed; the descriptor is gone either way.
  bool close() noexcept { return !valid() || ::close(std::exchange(fd, -1)) == 0; }

 private:
  int fd;
};

}  // namespace zelo
