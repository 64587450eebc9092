"""Runs a command on a device that it cannot leave: /usr/bin/python3 -IS confine.py ROOT COMMAND [ARGUMENT]...

ROOT becomes the root of all mounts, so there is nothing of this machine to find, and it is the command's only
file system but for a /proc that shows the command's own processes. They end with the command, and the command
with this process. The command is root in a user namespace below this one, which fixes the mounts that it
finds: nobody there can write to /proc/sys, and nobody is root for the kernel. Needs root, or to be started
by `device.alone`.
"""

import ctypes
import os
import signal
import stat
import sys
from pathlib import Path

# From <sched.h>, <sys/mount.h> and <sys/prctl.h>.
NEW_MOUNTS, NEW_NAMES, NEW_IPC = 0x00020000, 0x04000000, 0x08000000
NEW_USERS, NEW_PROCESSES = 0x10000000, 0x20000000
READ_ONLY, NO_SUID, NO_DEVICES, NO_PROGRAMS, BIND, RECURSIVE = 1, 2, 4, 8, 4096, 16384
DETACH = 2
SIGNAL_WHEN_PARENT_ENDS = 1

# Signals do not end the first process of a namespace, unless they come from outside. It says nothing itself.
FIRST_PROCESS = ["/bin/sh", "-c", 'exec 3>&2 2>/dev/null; (exec "$@" 2>&3 3>&-); exit "$?"', "sh"]

_libc = ctypes.CDLL(None, use_errno=True)


def call(name: str, *arguments: int | bytes | None) -> None:
    if getattr(_libc, name)(*arguments) != 0:
        error = ctypes.get_errno()
        raise OSError(error, f"{name}: {os.strerror(error)}")


def confine(root: bytes) -> None:
    """Called in the first process of the new namespace."""
    call("mount", b"proc", root + b"/proc", b"proc", READ_ONLY | NO_SUID | NO_DEVICES | NO_PROGRAMS, None)
    hide_null_device(root)
    enter_user_namespace()
    call("mount", root, root, None, BIND | RECURSIVE, None)
    os.chdir(root)
    if os.spawnv(os.P_WAIT, "/usr/sbin/pivot_root", ["pivot_root", ".", "."]) != 0:
        raise OSError("pivot_root failed")
    call("umount2", b".", DETACH)
    os.chdir("/")


def hide_null_device(root: bytes) -> None:
    """By an open descriptor root could change the mode of this machine's; the device's is mounted read-only."""
    null = os.stat(os.devnull).st_rdev
    for descriptor in range(3):
        opened = os.fstat(descriptor)
        if stat.S_ISCHR(opened.st_mode) and opened.st_rdev == null:
            own = os.open(root + b"/dev/null", os.O_RDWR | os.O_NOFOLLOW)
            os.dup2(own, descriptor)
            os.close(own)


def enter_user_namespace() -> None:
    """One with the same ids, which only a process that stays outside may arrange."""
    process = os.readlink("/proc/self")  # its number outside
    entered, tell = os.pipe()
    mapper = os.fork()
    if mapper == 0:
        try:
            os.close(tell)
            os.read(entered, 1)
            for file in "uid_map", "gid_map":
                ids = (line.split() for line in Path(f"/proc/self/{file}").read_text().splitlines())
                same = "".join(f"{first} {first} {count}\n" for first, _, count in ids)
                Path(f"/proc/{process}/{file}").write_text(same)
            os._exit(0)
        finally:
            os._exit(1)
    call("unshare", NEW_USERS | NEW_MOUNTS | NEW_IPC | NEW_NAMES)
    os.close(tell)
    if os.waitpid(mapper, 0)[1] != 0:
        raise PermissionError("user ids cannot be mapped")


def main() -> None:
    os.closerange(3, 1 << 16)
    root, command = os.path.realpath(os.fsencode(sys.argv[1])), sys.argv[2:]
    call("unshare", NEW_MOUNTS | NEW_PROCESSES)
    first = os.fork()
    if first != 0:
        status = os.waitstatus_to_exitcode(os.waitpid(first, 0)[1])
        os._exit(status if status >= 0 else 128 - status)
    call("prctl", SIGNAL_WHEN_PARENT_ENDS, signal.SIGKILL)
    confine(root)
    for signum in (signal.SIGPIPE, signal.SIGXFSZ):  # which the interpreter ignores
        signal.signal(signum, signal.SIG_DFL)
    os.execv(FIRST_PROCESS[0], [*FIRST_PROCESS, *command])


if __name__ == "__main__":
    main()
