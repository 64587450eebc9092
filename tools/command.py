"""How a command ends: after one line that says what stopped it, and with nothing left behind.

The command itself is imported late, so that Ctrl-C shows no traceback; this file imports next to nothing.
"""

import os
import signal
import sys

ENDING = (signal.SIGINT, signal.SIGTERM, signal.SIGHUP)
NAME = os.path.basename(sys.argv[0])  # what the command was called by


class Failure(RuntimeError):
    """Why the command cannot do its work, in one line for the user."""


class Stopped(BaseException):
    """A signal told the command to end."""

    def __init__(self, signum: int):
        super().__init__(f"stopped by {signal.Signals(signum).name}")
        self.signum = signum


def run_command(module: str, failed: int) -> None:
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
        print(f"{NAME}: {stopped}", file=sys.stderr, flush=True)
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
    with open(os.path.join(os.path.dirname(__file__), "VERSION")) as file:
        return f"{NAME} {file.read().strip()}"


def _run(module: str) -> int:
    import importlib
    import subprocess
    try:
        return int(importlib.import_module(module).main())
    except SystemExit as end:  # after --help or wrong usage
        return int(end.code or 0)
    except (ImportError, subprocess.SubprocessError) as error:
        raise Failure(str(error)) from error
    finally:
        _flush()


def _flush() -> None:
    try:
        sys.stdout.flush()
    except OSError as error:
        error.filename = "standard output"
        raise


def _stop(signum: int, _frame: object) -> None:
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
