"""Runs a command alone: /usr/bin/python3 -m device.alone COMMAND [ARGUMENT]...

The command gets namespaces for its processes, mounts and network, and a directory in memory that only it sees.
Root keeps all user ids; anybody else is root in there. When the command ends, or the process that was started
ends, whatever the reason, all of that is gone.

Where namespaces are refused, e.g. in a plain container, the directory is one under /tmp. What the command
leaves is ended and removed afterwards; but after SIGKILL, some of it may stay.
"""

import ctypes
import os
import signal
import socket
import subprocess
import sys
import tempfile
from collections.abc import Iterator
from contextlib import contextmanager, suppress
from pathlib import Path

VARIABLE = "ZELO_ALONE"  # says where the directory is
BWRAP = ("bwrap", "--die-with-parent", "--as-pid-1", "--unshare-pid", "--unshare-net", "--dev-bind", "/", "/")
AS_ROOT = ("--unshare-user", "--uid", "0", "--gid", "0", "--cap-add", "ALL")
# Before the command, it asks whether the launcher is still there; any later end of that is noticed.
FIRST_PROCESS = """
mount -t proc proc /proc && mkdir -p "$1" && mount -t tmpfs -o mode=1777 tmpfs "$1" || exit
shift
trap : INT
(echo >&2 && read -r _ <&2 && exec "$@" 2>&{stderr} {stderr}>&-)
exit
"""
FROM_TERMINAL = (signal.SIGINT, signal.SIGQUIT, signal.SIGHUP)
PASSED_ON = {*FROM_TERMINAL, signal.SIGTERM}
TAKEN = {*PASSED_ON, signal.SIGCHLD}
ENDS = {*PASSED_ON, signal.SIGABRT, signal.SIGKILL, signal.SIGPIPE, signal.SIGSEGV}
SENT_BY_KERNEL = 128  # SI_KERNEL of <signal.h>
ADOPT_ORPHANS = 36  # PR_SET_CHILD_SUBREAPER of <sys/prctl.h>


def place() -> Path:
    """The directory for everything that goes with this command."""
    try:
        return Path(os.environ[VARIABLE])
    except KeyError:
        raise RuntimeError("start this with: /usr/bin/python3 -m device.alone") from None


def confined() -> bool:
    """Whether there are namespaces: mounts are allowed, and nobody else sees them."""
    return place().is_mount()


def mount(*arguments: str | Path) -> None:
    subprocess.run(["/usr/bin/mount", *arguments], check=True)


@contextmanager
def directory() -> Iterator[Path]:
    """A new directory for as long as the context, with all that is put or mounted there."""
    path = Path(tempfile.mkdtemp(dir=place()))
    if confined():
        mount("-t", "tmpfs", "tmpfs", path)
    try:
        yield path
    finally:
        if confined():
            subprocess.run(["/usr/bin/umount", "--lazy", path], check=True)
        _remove(path)


def _main(command: list[str]) -> None:
    signal.pthread_sigmask(signal.SIG_BLOCK, TAKEN)
    # What runs alone may start others like that, which see its files.
    memory = os.environ.get(VARIABLE, "/dev") + "/shm"
    launched = _start_in_namespaces(command, memory)
    if launched:
        status = _attend(launched, below=2)
    else:
        memory = tempfile.mkdtemp(prefix="zdev.", dir="/tmp")
        ctypes.CDLL(None).prctl(ADOPT_ORPHANS, 1)
        status = _attend(_start(["/usr/bin/setpriv", "--pdeathsig=TERM", *command], memory), below=0)
        _end_children()
        _remove(Path(memory))
    if status - 128 in ENDS:
        _end_by(status - 128)
    sys.exit(status)


def _start(command: list[str], memory: str, stderr: socket.socket | None = None) -> subprocess.Popen[bytes]:
    environment = {**os.environ, VARIABLE: memory, "TMPDIR": memory}
    return subprocess.Popen(command, env=environment, stderr=stderr, close_fds=False,
                            preexec_fn=lambda: signal.pthread_sigmask(signal.SIG_UNBLOCK, TAKEN))


def _start_in_namespaces(command: list[str], memory: str) -> subprocess.Popen[bytes] | None:
    """None where they are refused."""
    # The terminal sends its signals to all, and bwrap would end everything.
    taken = ",".join(signum.name for signum in FROM_TERMINAL if signal.getsignal(signum) != signal.SIG_IGN)
    here, there = socket.socketpair()
    stderr = os.dup(2)
    os.set_inheritable(stderr, True)
    first = ["/bin/sh", "-c", FIRST_PROCESS.format(stderr=stderr), "sh", memory]
    launched = _start(["/usr/bin/env", f"--ignore-signal={taken}", *BWRAP, *(AS_ROOT if os.geteuid() else ()),
                       "/usr/bin/env", f"--default-signal={taken}", *first, *command], memory, there)
    os.close(stderr)
    there.close()
    with here:
        ready = here.recv(1) == b"\n"
        for signum in signal.sigpending() & PASSED_ON:  # it may have come too early for the command
            _end_by(signum)
        if ready:
            here.send(b"\n")
            return launched
    launched.wait()
    return None


def _attend(launched: subprocess.Popen[bytes], below: int) -> int:
    """The exit status of the command, which is so far below `launched`; or 128 and the signal that ended it."""
    while (status := launched.poll()) is None:
        got = signal.sigwaitinfo(TAKEN)
        # The terminal sends it to the command, too.
        if got.si_signo in PASSED_ON and got.si_code != SENT_BY_KERNEL:
            with suppress(OSError, IndexError):  # it has just ended
                command = launched.pid
                for _ in range(below):
                    command = _children(command)[0]
                os.kill(command, got.si_signo)
    return status if status >= 0 else 128 - status


def _children(pid: int) -> list[int]:
    return [int(child) for child in Path(f"/proc/{pid}/task/{pid}/children").read_text().split()]


def _end_children() -> None:
    """With those that have lost their parents."""
    while True:
        for pid in _children(os.getpid()):
            os.kill(pid, signal.SIGKILL)
        try:
            os.wait()
        except ChildProcessError:
            return


def _end_by(signum: int) -> None:
    with suppress(OSError):  # SIGKILL's action is fixed
        signal.signal(signum, signal.SIG_DFL)
    signal.pthread_sigmask(signal.SIG_UNBLOCK, {signum})
    os.kill(os.getpid(), signum)


def _remove(path: Path) -> None:
    subprocess.run(["rm", "-rf", "--one-file-system", path], check=True)


if __name__ == "__main__":
    if len(sys.argv) == 1:
        sys.exit(__doc__)
    _main(sys.argv[1:])
