"""How a command ends: after one line that says what stopped it, and with nothing left behind."""

import importlib
import os
import signal
import sys
from collections.abc import Iterator
from contextlib import contextmanager
from pathlib import Path
from typing import NoReturn

ENDING = (signal.SIGINT, signal.SIGTERM, signal.SIGHUP)
NAME = os.path.basename(sys.argv[0])  # what the command was called by


class Failure(RuntimeError):
    """Why the command cannot do its work, in one line for the user."""


class Stopped(BaseException):
    def __init__(self, signum: int):
        self.signum = signum


def run_command(module: str, failed: int) -> NoReturn:
    """Imports `module`, calls its `main`, and ends the process with the status that it returns.

    A failure is one line on standard error and the status `failed`. After a signal, and when nobody reads
    standard output any more, the process leaves all context managers and ends by the signal.
    """
    _open_standard_descriptors()
    for ending in ENDING:
        if signal.getsignal(ending) != signal.SIG_IGN:
            signal.signal(ending, _stop)
    try:
        status = _run(module)
    except Stopped as stopped:
        print(f"{NAME}: stopped by {signal.Signals(stopped.signum).name}", file=sys.stderr, flush=True)
        _end_by(stopped.signum)
    except BrokenPipeError:
        _end_by(signal.SIGPIPE)
    except (OSError, RuntimeError) as error:
        reason = getattr(error, "strerror", None) or str(error)
        file = getattr(error, "filename", None)
        print(f"{NAME}: {file}: {reason}" if file else f"{NAME}: {reason}", file=sys.stderr)
        status = failed
    # Not through the interpreter's end, which would try again to write what could not be written.
    os._exit(status)


def version() -> str:
    """What --version prints."""
    return f"{NAME} {Path(__file__).with_name('VERSION').read_text().strip()}"


def _run(module: str) -> int:
    # Imported here, where Ctrl-C shows no traceback any more.
    import subprocess
    try:
        status = int(importlib.import_module(module).main())
    except SystemExit as end:  # after --help or wrong usage
        status = int(end.code or 0)
    except (ImportError, subprocess.SubprocessError) as error:
        raise Failure(str(error)) from error
    try:
        sys.stdout.flush()
    except OSError as error:
        error.filename = "standard output"
        raise
    return status


def _stop(signum: int, _frame: object) -> NoReturn:
    for ending in ENDING:
        signal.signal(ending, signal.SIG_IGN)  # nothing interrupts the cleaning up
    raise Stopped(signum)


def _end_by(signum: int) -> None:
    signal.signal(signum, signal.SIG_DFL)
    os.kill(os.getpid(), signum)


def _open_standard_descriptors() -> None:
    """Opens /dev/null in place of closed ones, or other files would get their numbers."""
    while (descriptor := os.open(os.devnull, os.O_RDWR)) <= 2:
        os.set_inheritable(descriptor, True)
    os.close(descriptor)
    # What is not text (in file names, say) is shown as numbers.
    sys.stdout = open(1, "w", errors="backslashreplace", closefd=False)
    sys.stderr = sys.stderr or open(2, "w", errors="backslashreplace", closefd=False)


@contextmanager
def scratch_directory(parent: Path | None = None) -> Iterator[Path]:
    """A directory that is removed afterwards; signals wait while it is made and removed."""
    import tempfile
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
