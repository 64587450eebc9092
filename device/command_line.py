"""How a command ends when somebody or something ends it: with one line, and with nothing left behind."""

import os
import signal
import subprocess
import sys
from collections.abc import Callable

SIGNALS = (signal.SIGINT, signal.SIGTERM, signal.SIGHUP)


class Interrupted(BaseException):
    def __init__(self, signum: int):
        super().__init__(f"ended by {signal.Signals(signum).name}")
        self.status = 128 + signum


def _interrupt(signum: int, _frame: object) -> None:
    for each in SIGNALS:  # or a second one would interrupt the tidying up
        signal.signal(each, signal.SIG_IGN)
    raise Interrupted(signum)


def run(name: str, command: Callable[[], int]) -> int:
    """The exit status of `command`, which may raise whatever it does not know how to mend."""
    for signum in SIGNALS:
        if signal.getsignal(signum) != signal.SIG_IGN:  # as nohup wants it
            signal.signal(signum, _interrupt)
    try:
        status = command()
        print(end="", flush=True)  # which also knows a closed standard output
        return status
    except BrokenPipeError:  # the reader has seen enough
        os.dup2(os.open(os.devnull, os.O_WRONLY), sys.stdout.fileno())
        return 1
    except Interrupted as end:
        reason, status = str(end), end.status
    except (OSError, RuntimeError, ImportError, subprocess.SubprocessError) as error:
        reason, status = str(error), 1
    finally:  # nothing is left to tidy up; raising while the interpreter ends would leave the status 0
        for signum in SIGNALS:
            if signal.getsignal(signum) == _interrupt:
                signal.signal(signum, signal.SIG_DFL)
    if sys.stderr:  # or print would take standard output
        print(f"{name}: {reason}", file=sys.stderr)
    return status
