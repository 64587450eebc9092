#include <fcntl.h>
#include <sys/stat.h>
#include <syslog.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <string>

#include "platform/qorvex_daemon.h"
#include "utils/file_descriptor.h"

namespace {

constexpr int refused = -1;

int fail(const char* what, const char* pidFile) {
  syslog(LOG_ERR, "singleton: unable to %s %s: %s", what, pidFile, strerrordesc_np(errno));
  return refused;
}

// A record lock: not inherited by forked processes, released by the kernel when the process dies.
bool lock(int fd) {
  struct flock whole {};
  whole.l_type = F_WRLCK;
  whole.l_whence = SEEK_SET;
  return fcntl(fd, F_SETLK, &whole) == 0;
}

// False when the file was unlinked between its opening and its locking: the next instance would lock
// another one.
bool isStillThere(int fd, const char* pidFile) {
  struct stat locked {};
  struct stat named {};
  return fstat(fd, &locked) == 0 && stat(pidFile, &named) == 0 && locked.st_dev == named.st_dev &&
         locked.st_ino == named.st_ino;
}

}  // namespace

int qorvex_daemon_checksingleton(const char* pidFile) {
  for (;;) {
    zelo::FileDescriptor file(open(pidFile, O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW, 0644));
    if (!file.valid()) return fail("open", pidFile);
    if (!lock(file.get())) return errno == EACCES || errno == EAGAIN ? refused : fail("lock", pidFile);
    if (!isStillThere(file.get(), pidFile)) continue;

    const std::string pid = std::to_string(getpid()) + "\n";
    if (ftruncate(file.get(), 0) != 0 || write(file.get(), pid.data(), pid.size()) < 0) {
      syslog(LOG_WARNING, "singleton: unable to write %s: %s", pidFile,
             strerrordesc_np(errno));  // the lock counts
    }
    return file.release();
  }
}

int qorvex_daemon_cleansingleton(const char* pidFile, int handle) {
  if (handle < 0) return refused;
  zelo::FileDescriptor file(handle);
  unlink(pidFile);
  return file.close() ? 0 : -1;
}
