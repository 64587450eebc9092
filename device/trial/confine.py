"""Runs a command on a device that it cannot leave: /usr/bin/python3 -IS confine.py ROOT COMMAND [ARGUMENT]...

ROOT becomes the root of all mounts, so nothing of this machine can be found; a /proc is added that shows only
the command's own processes. They end with the command, and the command ends with this process. It is root
in a user namespace below ours. That fixes the mounts that it finds: nobody there can write below /proc/sys,
although the system takes root for the owner of what is there. Needs root, or to be started by `device.alone`.
"""

import os
import signal
import stat
import sys
from pathlib import Path

sys.path.insert(0, str(Path(__file__).resolve().parents[2]))

from device.namespaces import call, die_with_parent, id_mapper  # noqa: E402

# From <sched.h> and <sys/mount.h>.
NEW_MOUNTS, NEW_NAMES, NEW_IPC = 0x20000, 0x4000000, 0x8000000
NEW_USERS, NEW_PROCESSES = 0x10000000, 0x20000000
READ_ONLY, NO_SUID, NO_DEVICES, NO_PROGRAMS, BIND, RECURSIVE = 1, 2, 4, 8, 4096, 16384
DETACH = 2

# Signals do not end the first process of a namespace, unless they come from outside. It says nothing itself.
FIRST_PROCESS = ["/bin/sh", "-c", 'exec 3>&2 2>/dev/null; (exec "$@" 2>&3 3>&-); exit "$?"', "sh"]


def confine(root: bytes) -> None:
    """Called in the first process of the new namespace."""
    call("mount", b"proc", root + b"/proc", b"proc", READ_ONLY | NO_SUID | NO_DEVICES | NO_PROGRAMS, None)
    replace_null_device(root)
    map_ids = id_mapper()
    call("unshare", NEW_USERS | NEW_MOUNTS | NEW_IPC | NEW_NAMES)
    if not map_ids():
        raise PermissionError("user ids cannot be mapped")
    call("mount", root, root, None, BIND | RECURSIVE, None)
    os.chdir(root)
    if os.spawnv(os.P_WAIT, "/usr/sbin/pivot_root", ["pivot_root", ".", "."]) != 0:
        raise OSError("pivot_root failed")
    call("umount2", b".", DETACH)
    os.chdir("/")


def replace_null_device(root: bytes) -> None:
    """Through an open descriptor, root could change the mode of this machine's; the device's is read-only."""
    null = os.stat(os.devnull).st_rdev
    for descriptor in range(3):
        opened = os.fstat(descriptor)
        if stat.S_ISCHR(opened.st_mode) and opened.st_rdev == null:
            own = os.open(root + b"/dev/null", os.O_RDWR | os.O_NOFOLLOW)
            os.dup2(own, descriptor)
            os.close(own)


def main() -> None:
    os.closerange(3, 1 << 16)
    root, command = os.path.realpath(os.fsencode(sys.argv[1])), sys.argv[2:]
    call("unshare", NEW_MOUNTS | NEW_PROCESSES)
    first = os.fork()
    if first != 0:
        status = os.waitstatus_to_exitcode(os.waitpid(first, 0)[1])
        os._exit(status if status >= 0 else 128 - status)
    die_with_parent(signal.SIGKILL)
    confine(root)
    for signum in (signal.SIGPIPE, signal.SIGXFSZ):  # which the interpreter ignores
        signal.signal(signum, signal.SIG_DFL)
    os.execv(FIRST_PROCESS[0], [*FIRST_PROCESS, *command])


if __name__ == "__main__":
    try:
        main()
    except OSError as error:
        sys.exit(f"cannot run this on the device: {error}")
