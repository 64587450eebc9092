"""What a daemon waits for when nothing happens."""

import os

from device.trial.lines import shortened
from device.trial.trace import Trace

UNTRACED = "run.sh still runs, or something that it started holds its standard output"


def waited_for(trace: Trace) -> str:
    running = trace.running()
    if trace.script in running:
        del running[trace.script]
        return f"run.sh still runs: {', '.join(shortened(running.values())) or 'no other program'}"
    holders = shortened(command for pid, command in running.items() if _holds(pid, trace.output))
    return f"run.sh has ended, but its standard output is held by: {', '.join(holders)}"


def _holds(pid: int, pipe: str) -> bool:
    """Whether a process has the pipe open."""
    try:
        directory = f"/proc/{pid}/fd"
        return any(os.readlink(f"{directory}/{number}") == pipe for number in os.listdir(directory))
    except OSError:  # ended meanwhile
        return False
