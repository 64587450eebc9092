"""Runs a command alone: /usr/bin/python3 -m device.alone COMMAND [ARGUMENT]...

The command gets namespaces for its users, processes and mounts, and a directory in memory that only it sees.
When it ends, or the process that was started ends by any signal, everything in there is gone. Root keeps all
user ids; anybody else is root in there.

Where such namespaces are refused, e.g. in a plain container, the directory is one under /tmp. What the
command leaves is then ended and removed afterwards; SIGKILL leaves it.
"""

import ctypes
import os
import select
import signal
import subprocess
import sys
import tempfile
from collections.abc import Callable, Iterator
from contextlib import contextmanager
from pathlib import Path

# From <sched.h>, <sys/prctl.h> and <signal.h>.
NEW_USERS, NEW_MOUNTS, NEW_PROCESSES = 0x10000000, 0x00020000, 0x20000000
SIGNAL_WHEN_PARENT_ENDS, ADOPT_ORPHANS = 1, 36
FROM_TERMINAL = 128

IN_MEMORY = Path("/dev/shm")  # short, because the path of a socket holds 108 bytes; there on every machine
VARIABLE = "ZELO_ALONE"  # says where the directory is
PASSED_ON = {signal.SIGINT, signal.SIGTERM, signal.SIGHUP, signal.SIGQUIT}

_libc = ctypes.CDLL(None, use_errno=True)


def place() -> Path:
    """The directory for everything that goes with this command."""
    try:
        return Path(os.environ[VARIABLE])
    except KeyError:
        raise RuntimeError("start this with: /usr/bin/python3 -m device.alone") from None


def confined() -> bool:
    """Whether there are namespaces: mounts are allowed and seen by nobody else."""
    return place() == IN_MEMORY


def mount(*arguments: str | Path) -> None:
    subprocess.run(["/usr/bin/mount", *arguments], check=True)


@contextmanager
def directory() -> Iterator[Path]:
    """A new directory for as long as the context, with all that is put or mounted there."""
    path = Path(tempfile.mkdtemp(prefix="", dir=place()))
    if confined():
        mount("-t", "tmpfs", "tmpfs", path)
    try:
        yield path
    finally:
        if confined():
            subprocess.run(["/usr/bin/umount", "--lazy", path], check=True)
            path.rmdir()
        else:
            _remove(path)


def enter() -> None:
    """Returns in a new process, which is alone. The one that calls this ends as the new one does."""
    before = signal.pthread_sigmask(signal.SIG_BLOCK, {*PASSED_ON, signal.SIGCHLD})
    everything = NEW_USERS | NEW_MOUNTS | NEW_PROCESSES
    namespaces = next(filter(_allowed, (everything, everything & ~NEW_USERS)), 0)
    if namespaces:
        first = _separate(namespaces)
        os.environ[VARIABLE] = str(IN_MEMORY)
    else:
        _call("prctl", ADOPT_ORPHANS, 1)
        os.environ[VARIABLE] = tempfile.mkdtemp(prefix="zdev.", dir="/tmp")
    command = os.fork()
    if command == 0:
        if not namespaces:
            _call("prctl", SIGNAL_WHEN_PARENT_ENDS, signal.SIGTERM)
        if signal.getsignal(signal.SIGINT) == signal.default_int_handler:
            signal.signal(signal.SIGINT, signal.SIG_DFL)  # or Ctrl-C shows a traceback
        signal.pthread_sigmask(signal.SIG_SETMASK, before)
        return

    status = os.waitstatus_to_exitcode(_attend(command))
    if namespaces:
        os.kill(first, signal.SIGKILL)
        os.waitpid(first, 0)  # returns when all have ended
    else:
        _end_children()
        _remove(place())
    if status < 0:
        if status != -signal.SIGKILL:
            signal.signal(-status, signal.SIG_DFL)
            signal.pthread_sigmask(signal.SIG_UNBLOCK, {-status})
        os.kill(os.getpid(), -status)
    os._exit(status)


def _attend(command: int) -> int:
    """The wait status of the command, once it has ended."""
    while True:
        got = signal.sigwaitinfo({*PASSED_ON, signal.SIGCHLD})
        # The terminal has sent it to the command, too.
        if got.si_signo in PASSED_ON and got.si_code != FROM_TERMINAL:
            os.kill(command, got.si_signo)
        pid, status = os.waitpid(command, os.WNOHANG)
        if pid == command:
            return status


def _allowed(namespaces: int) -> bool:
    """Tried in another process, because there is no way back."""
    trial = os.fork()
    if trial == 0:
        try:
            _separate(namespaces)
            os._exit(0)
        finally:
            os._exit(1)
    return os.waitpid(trial, 0)[1] == 0


def _separate(namespaces: int) -> int:
    """Leaves the namespaces of this process; its children get a new one for processes, too. Returns the first
    process there: its end is the end of all, and it ends with this process at the latest."""
    map_ids = _id_mapper() if namespaces & NEW_USERS else lambda: True
    _call("unshare", namespaces)
    if not map_ids():
        raise PermissionError("user ids cannot be mapped")
    has_parent, parent = os.pipe()
    ready, prepared = os.pipe()
    first = os.fork()
    if first == 0:
        try:
            os.close(parent)
            _call("prctl", SIGNAL_WHEN_PARENT_ENDS, signal.SIGKILL)
            if select.select([has_parent], [], [], 0)[0]:  # it ended before
                os._exit(1)
            signal.signal(signal.SIGCHLD, signal.SIG_DFL)
            _mount_own()
            signal.signal(signal.SIGCHLD, signal.SIG_IGN)  # the system discards orphans that end
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


def _mount_own() -> None:
    with open(os.devnull, "w", encoding="ascii") as nowhere:
        os.dup2(nowhere.fileno(), sys.stderr.fileno())
    mount("--make-rprivate", "/")
    mount("-t", "proc", "proc", "/proc")
    mount("-t", "tmpfs", "-o", "mode=1777", "tmpfs", IN_MEMORY)


def _id_mapper() -> Callable[[], bool]:
    """Maps the user and group ids of the namespace that this process is about to enter, which only one that
    stays outside may do. Call the result inside."""
    process = os.getpid()
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


def _end_children() -> None:
    """Those that have lost their parents are this process's."""
    while True:
        for pid in Path(f"/proc/self/task/{os.getpid()}/children").read_text().split():
            os.kill(int(pid), signal.SIGKILL)
        try:
            os.wait()
        except ChildProcessError:
            return


def _remove(path: Path) -> None:
    subprocess.run(["rm", "-rf", "--one-file-system", path], check=True)


def _call(name: str, *arguments: int) -> None:
    if getattr(_libc, name)(*arguments) != 0:
        error = ctypes.get_errno()
        raise OSError(error, f"{name}: {os.strerror(error)}")


if __name__ == "__main__":
    if len(sys.argv) == 1:
        sys.exit(__doc__)
    enter()
    for signum in (signal.SIGPIPE, signal.SIGXFSZ):  # which the interpreter ignores
        signal.signal(signum, signal.SIG_DFL)
    try:
        os.execvp(sys.argv[1], sys.argv[1:])
    except OSError as error:
        print(f"alone: {sys.argv[1]}: {error.strerror}", file=sys.stderr)
        sys.exit(127)
