"""How programs get into a device's root directory, with and without the rights of root.

Everything here ends in `exec`, so that the process id of the started command is the program's own.
Mounts are made in a mount namespace of the program's own and are gone with it.
"""

import functools
import os
import subprocess
import tempfile
from collections.abc import Sequence

AS_ROOT = os.geteuid() == 0

# Steps for `enter`: shell commands in which $0 is the device's root.
PROC = '/usr/bin/mount --rbind /proc "$0/proc"'

# The sanitizers read /proc; tests of programs built with them ask for it.
ALWAYS = (PROC,) if os.environ.get("ZELO_DEVICE_PROC") else ()


def tmpfs(path: str, size: str) -> str:
    """A step that puts an empty file system of `size` (as mount takes it, "64k") over `path`."""
    return f'/usr/bin/mount -t tmpfs -o size={size},mode=1777 none "$0{path}"'


def as_root() -> list[str]:
    """Prefix for a program outside the root that must have the user id of those inside."""
    return [] if AS_ROOT else ["/usr/bin/unshare", "-r"]


def enter(root: str, mounts: Sequence[str] = (), last: Sequence[str] = ()) -> list[str]:
    """Prefix for a program inside `root`, its path and arguments follow. Needs no environment.

    `last` is a prefix of its own for what comes after the mounts.
    """
    chroot = [*last, "/usr/sbin/chroot", root]
    mounts = [*ALWAYS, *mounts]
    if not mounts:
        return [*as_root(), *chroot]
    script = " && ".join([*mounts, 'exec "$@"'])
    return ["/usr/bin/unshare", *([] if AS_ROOT else ["-r"]), "-m", "/bin/sh", "-c", script, root, *chroot]


def join_mounts(pid: int) -> list[str]:
    """Prefix for a program that sees the mounts of the process `pid`."""
    return ["/usr/bin/nsenter", f"--target={pid}", "--mount", *([] if AS_ROOT else ["--user", "--preserve"])]


@functools.cache
def mounts_allowed() -> bool:
    """Whether this machine lets us make mounts at all; plain containers do not."""
    with tempfile.TemporaryDirectory(prefix="zd.", dir="/tmp") as scratch:
        os.mkdir(f"{scratch}/tmp")
        attempt = [*as_root(), "/usr/bin/unshare", "-m", "/bin/sh", "-c", tmpfs("/tmp", "64k"), scratch]
        return subprocess.run(attempt, capture_output=True, check=False).returncode == 0
