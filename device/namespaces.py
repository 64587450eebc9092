"""Namespaces for users, processes and mounts, entered by a process before it starts others."""

import ctypes
import os
import select
import signal
import subprocess
from collections.abc import Callable
from pathlib import Path

# From <sched.h> and <sys/prctl.h>.
_USERS, _MOUNTS, _PROCESSES = 0x10000000, 0x00020000, 0x20000000
_SIGNAL_WHEN_PARENT_ENDS, _ADOPT_ORPHANS = 1, 36
_libc = ctypes.CDLL(None, use_errno=True)


def enter(memory: str) -> int | None:
    """Moves this process, and all that it starts from now on, into new namespaces, where the directory
    `memory` is empty and nobody else's. Root keeps all user ids; anybody else is root in there.

    Returns the first process there, or None where this is refused. When that one ends, all others end; it
    ends with this process at the latest.
    """
    for namespaces in _USERS | _MOUNTS | _PROCESSES, _MOUNTS | _PROCESSES:
        # Tried in another process first, because there is no way back.
        trial = os.fork()
        if trial == 0:
            try:
                _enter(namespaces, memory)
                os._exit(0)
            finally:
                os._exit(1)
        if os.waitpid(trial, 0)[1] == 0:
            return _enter(namespaces, memory)
    return None


def die_with_parent(signum: int) -> None:
    """Asks for a signal to this process when the one that started it ends."""
    call("prctl", _SIGNAL_WHEN_PARENT_ENDS, signum)


def adopt_orphans() -> None:
    """Makes this process the parent of those below it that lose theirs."""
    call("prctl", _ADOPT_ORPHANS, 1)


def mount(*arguments: str | Path) -> None:
    subprocess.run(["/usr/bin/mount", *arguments], check=True)


def _enter(namespaces: int, memory: str) -> int:
    map_ids = id_mapper() if namespaces & _USERS else lambda: True
    call("unshare", namespaces)
    if not map_ids():
        raise PermissionError("user ids cannot be mapped")
    has_parent, parent = os.pipe()
    ready, prepared = os.pipe()
    first = os.fork()
    if first == 0:
        try:
            os.close(parent)
            die_with_parent(signal.SIGKILL)
            if select.select([has_parent], [], [], 0)[0]:  # it has ended already
                os._exit(1)
            _mount_own(memory)
            signal.signal(signal.SIGCHLD, signal.SIG_IGN)  # orphans are reaped by the system
            os.write(prepared, b"x")
            os.close(prepared)
            while True:
                signal.pause()
        finally:
            os._exit(1)
    os.close(prepared)
    done = os.read(ready, 1)
    for descriptor in (ready, has_parent, parent):
        os.close(descriptor)
    if not done:
        raise PermissionError("mounts cannot be made")
    return first


def _mount_own(memory: str) -> None:
    with open(os.devnull, "wb") as nowhere:
        os.dup2(nowhere.fileno(), 2)  # what is refused is not worth a message
    mount("--make-rprivate", "/")
    mount("-t", "proc", "proc", "/proc")
    mount("-t", "tmpfs", "-o", "mode=1777", "tmpfs", memory)


def id_mapper() -> Callable[[], bool]:
    """Maps the ids of the user namespace that this process is about to enter, which only a process that
    stays outside can do. Call the result inside; it says whether that went well."""
    process = os.readlink("/proc/self")  # its number where /proc is of, which may be outside
    entered, tell = os.pipe()
    mapper = os.fork()
    if mapper == 0:
        try:
            os.close(tell)
            os.read(entered, 1)
            if os.geteuid() != 0:
                Path(f"/proc/{process}/setgroups").write_text("deny")
            for file, own in ("uid_map", os.geteuid()), ("gid_map", os.getegid()):
                ids = (line.split() for line in Path(f"/proc/self/{file}").read_text().splitlines())
                same = "".join(f"{first} {first} {count}\n" for first, _, count in ids)
                Path(f"/proc/{process}/{file}").write_text(f"0 {own} 1" if os.geteuid() != 0 else same)
            os._exit(0)
        finally:
            os._exit(1)
    os.close(entered)

    def finish() -> bool:
        os.close(tell)
        return os.waitpid(mapper, 0)[1] == 0

    return finish


def call(name: str, *arguments: int | bytes | None) -> None:
    """A function of the C library that returns 0 when all is well."""
    if getattr(_libc, name)(*arguments) != 0:
        error = ctypes.get_errno()
        raise OSError(error, f"{name}: {os.strerror(error)}")
