"""Runs a command alone: /usr/bin/python3 -m device.alone COMMAND [ARGUMENT]...

The command gets namespaces for its processes, mounts and network, and a directory in memory that only it
sees. Root keeps all user ids; anybody else is root in there. When the command ends, or the process that was
started ends, whatever the reason, all of that is gone.

Where namespaces are refused, e.g. in a plain container, the directory is one under /tmp. What the command
leaves is ended and removed afterwards; but after SIGKILL, some of it may stay.
"""

import ctypes
import os
import select
import signal
import subprocess
import sys
import tempfile
from collections.abc import Iterator
from contextlib import contextmanager
from pathlib import Path

SHARED_MEMORY = "/dev/shm"  # on every machine, and short: the path of a socket holds 108 bytes
VARIABLE = "ZELO_ALONE"  # says where the directory is
UNSHARE = ("/usr/bin/unshare", "--mount", "--pid", "--net", "--fork", "--kill-child")
# Says its number here, where the /proc is that it finds. The system reaps orphans. It ends when nobody can
# write to its standard input any more.
FIRST_PROCESS = """
read -r number rest </proc/self/stat
mount -t proc proc /proc && mount -t tmpfs -o mode=1777 tmpfs "$1" && busybox ip link set lo up || exit
echo "$number"
exec env --ignore-signal=CHLD cat
"""
PASSED_ON = {signal.SIGINT, signal.SIGTERM, signal.SIGHUP, signal.SIGQUIT}
FROM_TERMINAL = 128  # SI_KERNEL of <signal.h>

# From <sched.h> and <sys/prctl.h>.
_MOUNTS, _USERS, _PROCESSES, _NETWORK = 0x00020000, 0x10000000, 0x20000000, 0x40000000
_SIGNAL_WHEN_PARENT_ENDS, _ADOPT_ORPHANS = 1, 36
_libc = ctypes.CDLL(None)


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
        mount("-t", "tmpfs", "-o", "nodev", "tmpfs", path)
    try:
        yield path
    finally:
        if confined():
            subprocess.run(["/usr/bin/umount", "--lazy", path], check=True)
        _remove(path)


def main() -> None:
    before = signal.pthread_sigmask(signal.SIG_BLOCK, {*PASSED_ON, signal.SIGCHLD})
    # A command that already runs alone may start another, which sees its files.
    memory = tempfile.mkdtemp(dir=place()) if VARIABLE in os.environ else SHARED_MEMORY
    first = _enter_namespaces(memory)
    if first is None:
        _libc.prctl(_ADOPT_ORPHANS, 1)
        memory = tempfile.mkdtemp(prefix="zdev.", dir="/tmp")
    os.environ[VARIABLE] = os.environ["TMPDIR"] = memory
    command = os.fork()
    if command == 0:
        if first is None:
            _libc.prctl(_SIGNAL_WHEN_PARENT_ENDS, signal.SIGTERM)
        if signal.getsignal(signal.SIGINT) == signal.default_int_handler:
            signal.signal(signal.SIGINT, signal.SIG_DFL)  # or Ctrl-C shows a traceback
        signal.pthread_sigmask(signal.SIG_SETMASK, before)
        # The interpreter ignores these two.
        os.execv("/usr/bin/env", ["env", "--default-signal=SIGPIPE,SIGXFSZ", *sys.argv[1:]])

    status = _attend(command)
    if first is not None:
        signal.pidfd_send_signal(first, signal.SIGKILL)
        select.select([first], [], [])  # until all have ended
    else:
        _end_children()
        _remove(place())
    if status < 0:
        if status != -signal.SIGKILL:
            signal.signal(-status, signal.SIG_DFL)
            signal.pthread_sigmask(signal.SIG_UNBLOCK, {-status})
        os.kill(os.getpid(), -status)
    os._exit(status)


def _enter_namespaces(memory: str) -> int | None:
    """Moves this process into new ones, and all that it starts from now on. Returns a descriptor of the first
    process there, with which all others end, or None where namespaces are refused.
    """
    namespaces = _MOUNTS | _PROCESSES | _NETWORK | (_USERS if os.geteuid() != 0 else 0)
    user = ("--map-root-user",) if namespaces & _USERS else ()
    command = [*UNSHARE, *user, "/bin/sh", "-c", FIRST_PROCESS, "sh", memory]
    # Not on the terminal, whose signals are for the command. The pipe is open until this process ends.
    starter = subprocess.Popen(command, stdin=os.pipe()[0], stdout=subprocess.PIPE, stderr=subprocess.DEVNULL,
                               start_new_session=True)
    if not (starter.stdout and (number := starter.stdout.readline())):
        return None
    first = os.pidfd_open(int(number))
    here = os.getcwd()
    if _libc.setns(first, namespaces) != 0:
        return None
    try:
        os.chdir(here)
    except FileNotFoundError:
        sys.exit(f"alone: {here} cannot be seen here; start this outside {memory}")
    return first


def _attend(command: int) -> int:
    """The exit status or the negative signal number of the command, once it has ended."""
    while True:
        got = signal.sigwaitinfo({*PASSED_ON, signal.SIGCHLD})
        # The terminal sends it to the command, too.
        if got.si_signo in PASSED_ON and got.si_code != FROM_TERMINAL:
            os.kill(command, got.si_signo)
        pid, status = os.waitpid(command, os.WNOHANG)
        if pid == command:
            return os.waitstatus_to_exitcode(status)


def _end_children() -> None:
    """With those that have lost their parents."""
    while True:
        for pid in Path(f"/proc/self/task/{os.getpid()}/children").read_text().split():
            os.kill(int(pid), signal.SIGKILL)
        try:
            os.wait()
        except ChildProcessError:
            return


def _remove(path: Path) -> None:
    subprocess.run(["rm", "-rf", "--one-file-system", path], check=True)


if __name__ == "__main__":
    if len(sys.argv) == 1:
        sys.exit(__doc__)
    main()
