"""The directory that everything of a device lies in.

Its owner keeps it locked, so that whoever comes later can tell what a killed one has left behind: sweeping
that up is the first thing that a new device does.
"""

import fcntl
import os
import signal
import subprocess
import tempfile
import time
from collections.abc import Iterator
from contextlib import contextmanager
from pathlib import Path

from device import PATIENCE

PARENT = Path("/tmp")  # short, because the path of a socket holds 108 bytes
PREFIX = "zdev."


def processes_in(base: Path) -> Iterator[int]:
    """Processes whose root or working directory lies in `base`; those of the device all have one."""
    for name in os.listdir("/proc"):
        if not name.isdigit():
            continue
        for place in ("root", "cwd"):
            try:
                inside = Path(os.readlink(f"/proc/{name}/{place}")).is_relative_to(base)
            except OSError:  # gone, or not ours
                break
            if inside:
                yield int(name)
                break


def remove(base: Path) -> None:
    """Ends what lives in `base`, then removes it, but nothing that is mounted there."""
    deadline = time.monotonic() + PATIENCE
    while living := list(processes_in(base)):
        for pid in living:
            try:
                os.kill(pid, signal.SIGKILL)
            except ProcessLookupError:
                pass
        if time.monotonic() > deadline:
            raise TimeoutError(f"{base}: processes {living} do not end")
        time.sleep(0.005)
    if os.geteuid() != 0 and base.exists():  # who is not root must be allowed to look into what is removed
        subprocess.run(["chmod", "-R", "u+rwX", base], check=True)
    subprocess.run(["rm", "-rf", "--one-file-system", base], check=True)


def lock(base: Path, wait: bool) -> int:
    """The descriptor that holds the lock, until it is closed or its process ends."""
    descriptor = os.open(base, os.O_RDONLY | os.O_DIRECTORY)
    try:
        fcntl.flock(descriptor, fcntl.LOCK_EX | (0 if wait else fcntl.LOCK_NB))
        os.stat(base)  # or it was swept up while this process waited
    except BaseException:
        os.close(descriptor)
        raise
    return descriptor


def sweep() -> None:
    """Removes the directories whose owners are dead."""
    for base in PARENT.glob(f"{PREFIX}*"):
        try:
            descriptor = lock(base, wait=False)
        except OSError:  # its owner lives, or it is another user's, or gone
            continue
        try:
            remove(base)
        finally:
            os.close(descriptor)


def claim() -> tuple[Path, int]:
    """A new directory and the descriptor that holds its lock."""
    while True:
        base = Path(tempfile.mkdtemp(prefix=PREFIX, dir=PARENT))
        try:
            return base, lock(base, wait=True)
        except FileNotFoundError:  # taken for a dead one's, being without a lock for a moment
            continue


@contextmanager
def base_directory() -> Iterator[Path]:
    sweep()
    base, descriptor = claim()
    try:
        yield base
    finally:
        try:
            remove(base)
        finally:
            os.close(descriptor)
