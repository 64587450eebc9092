#include "platform/qorvex_daemon.h"

#include <fcntl.h>
#include <syslog.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>

// Warnings and errors, until the daemon says otherwise.
std::uint32_t g_qorvex_log_mask = 0x03000000;

namespace {

constexpr int refused = -1;
constexpr mode_t ownerOnly = 0600;  // a user that may read a file may lock it, too

}  // namespace

int qorvex_daemon_checksingleton(const char* pidFile) {
  const int fd = open(pidFile, O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW, ownerOnly);
  if (fd < 0) {
    syslog(LOG_ERR, "singleton: unable to open %s: %s", pidFile, strerrordesc_np(errno));
    return refused;
  }
  // A record lock: not inherited by forked processes, released by the kernel when the process dies.
  if (lockf(fd, F_TLOCK, 0) != 0) {
    if (errno != EAGAIN) syslog(LOG_ERR, "singleton: unable to lock %s: %s", pidFile, strerrordesc_np(errno));
    close(fd);
    return refused;
  }
  if (ftruncate(fd, 0) != 0 || dprintf(fd, "%d\n", getpid()) < 0) {  // the lock counts
    syslog(LOG_WARNING, "singleton: unable to write %s: %s", pidFile, strerrordesc_np(errno));
  }
  return fd;
}

// The file stays: unlinked, it might be locked by one instance under its name and by another without.
int qorvex_daemon_cleansingleton(const char* /*pidFile*/, int handle) {
  if (handle < 0) return refused;
  const bool emptied = ftruncate(handle, 0) == 0;
  return close(handle) == 0 && emptied ? 0 : -1;
}
