#include <fcntl.h>
#include <sys/stat.h>
#include <syslog.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <string>

#include "platform/qorvex_daemon.h"

// Warnings and errors, until the daemon says otherwise.
std::uint32_t g_qorvex_log_mask = 0x03000000;

namespace {

constexpr int refused = -1;
constexpr mode_t ownerOnly = 0600;  // a user that may read a file may lock it, too

int fail(const char* what, const char* pidFile) {
  syslog(LOG_ERR, "singleton: unable to %s %s: %s", what, pidFile, strerrordesc_np(errno));
  return refused;
}

// A record lock: not inherited by forked processes, released by the kernel when the process dies.
bool lock(int fd) {
  struct flock whole = {};
  whole.l_type = F_WRLCK;
  whole.l_whence = SEEK_SET;
  return fcntl(fd, F_SETLK, &whole) == 0;
}

}  // namespace

int qorvex_daemon_checksingleton(const char* pidFile) {
  const int fd = open(pidFile, O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW, ownerOnly);
  if (fd < 0) return fail("open", pidFile);
  (void)fchmod(fd, ownerOnly);
  if (!lock(fd)) {
    const int result = errno == EACCES || errno == EAGAIN ? refused : fail("lock", pidFile);
    close(fd);
    return result;
  }
  const std::string pid = std::to_string(getpid()) + "\n";
  if (ftruncate(fd, 0) != 0 || write(fd, pid.data(), pid.size()) < 0) {
    syslog(LOG_WARNING, "singleton: unable to write %s: %s", pidFile,
           strerrordesc_np(errno));  // the lock counts
  }
  return fd;
}

// The file stays: unlinked, it might be locked by one instance under its name and by another without.
int qorvex_daemon_cleansingleton(const char* /*pidFile*/, int handle) {
  if (handle < 0) return refused;
  const bool emptied = ftruncate(handle, 0) == 0;
  return close(handle) == 0 && emptied ? 0 : -1;
}
