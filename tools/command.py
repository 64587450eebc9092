"""How the tools for bundles run others and end: one line for what stops them, and nothing left behind."""

import os
import re
import signal
import subprocess
import sys
import tempfile
from collections.abc import Callable, Iterator
from contextlib import contextmanager
from pathlib import Path
from types import FrameType
from typing import NoReturn

ENDING = (signal.SIGINT, signal.SIGTERM, signal.SIGHUP)


class Failure(Exception):
    """Why the command cannot do its work, in one line for the user."""


class Stopped(BaseException):
    def __init__(self, signum: int):
        self.signum = signum


def _stop(signum: int, _: FrameType | None) -> NoReturn:
    for ending in ENDING:
        signal.signal(ending, signal.SIG_IGN)  # nothing interrupts the tidying up
    raise Stopped(signum)


def _open_standard_descriptors() -> None:
    """Opens /dev/null in place of closed ones, or other files would get their numbers."""
    while (descriptor := os.open(os.devnull, os.O_RDWR)) <= 2:
        os.set_inheritable(descriptor, True)
    os.close(descriptor)
    # What is no text (in names, say) is shown as numbers, as standard error does it.
    sys.stdout = open(1, "w", errors="backslashreplace", closefd=False)
    sys.stderr = sys.stderr or open(2, "w", errors="backslashreplace", closefd=False)


def run_command(main: Callable[[], int], failed: int) -> NoReturn:
    """Ends the process with the status that `main` returns, or after one line with the status `failed`."""
    name = os.path.basename(sys.argv[0])
    _open_standard_descriptors()
    signal.signal(signal.SIGPIPE, signal.SIG_DFL)  # a closed pipe ends it silently, as it does other tools
    for ending in ENDING:
        if signal.getsignal(ending) != signal.SIG_IGN:
            signal.signal(ending, _stop)
    try:
        status = main()
        sys.stdout.flush()
    except Stopped as stopped:
        print(f"{name}: stopped by {signal.Signals(stopped.signum).name}", file=sys.stderr, flush=True)
        signal.signal(stopped.signum, signal.SIG_DFL)
        os.kill(os.getpid(), stopped.signum)
    except OSError as error:
        text = error.strerror or str(error)
        print(f"{name}: {error.filename}: {text}" if error.filename else f"{name}: {text}", file=sys.stderr)
        status = failed
    except (Failure, RuntimeError) as failure:  # a loop of links is a RuntimeError
        print(f"{name}: {failure}", file=sys.stderr)
        status = failed
    # Not through the interpreter's end, which would try again to write what could not be written.
    os._exit(status)


@contextmanager
def scratch_directory(parent: Path | None = None) -> Iterator[Path]:
    """A directory of our own, gone afterwards; signals wait while it is made and removed.

    Whoever prints does it afterwards: a closed pipe ends the process at once.
    """
    signal.pthread_sigmask(signal.SIG_BLOCK, ENDING)
    try:
        with tempfile.TemporaryDirectory(prefix=".zelo-bundle.", dir=parent) as name:
            try:
                signal.pthread_sigmask(signal.SIG_UNBLOCK, ENDING)
                yield Path(name).resolve()
            finally:
                signal.pthread_sigmask(signal.SIG_BLOCK, ENDING)
    finally:
        signal.pthread_sigmask(signal.SIG_UNBLOCK, ENDING)


def run(*command: str | Path, entered: bytes = b"") -> subprocess.CompletedProcess[bytes]:
    """Runs a program the way a device does: nothing of this environment changes what it does."""
    environment = {"PATH": os.environ.get("PATH", os.defpath), "LC_ALL": "C"}
    try:
        done = subprocess.run(command, input=entered, capture_output=True, check=False, env=environment,
                              umask=0)
    except FileNotFoundError:
        raise Failure(f"{command[0]} is needed, and not installed") from None
    if full := re.search(rb"No space left on device|Disk quota exceeded", done.stderr):
        raise Failure(f"{command[0]}: {full[0].decode()}")
    if missing := re.search(rb"(\S+): Cannot exec: No such file", done.stderr):
        raise Failure(f"{missing[1].decode()} is needed, and not installed")
    if done.returncode < 0:
        raise Failure(f"{command[0]} was ended by {signal.Signals(-done.returncode).name}")
    return done
