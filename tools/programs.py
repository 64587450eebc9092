"""Runs programs the way a device does: nothing of this environment changes what they do."""

import os
import re
import signal
import subprocess
from pathlib import Path

from command import Failure


def run(*command: str | Path, entered: bytes = b"") -> subprocess.CompletedProcess[bytes]:
    environment = {"PATH": os.environ.get("PATH", os.defpath), "LC_ALL": "C"}
    try:
        done = subprocess.run(command, input=entered, capture_output=True, check=False, env=environment)
    except FileNotFoundError:
        raise Failure(f"{command[0]} is not installed") from None
    if full := re.search(rb"No space left on device|Disk quota exceeded", done.stderr):
        raise Failure(f"{command[0]}: {full[0].decode()}")
    require_an_exit(str(command[0]), done.returncode)
    return done


def complaint(done: subprocess.CompletedProcess[bytes]) -> str:
    """The line on standard error that says why the program failed."""
    lines = done.stderr.decode(errors="replace").splitlines()
    return next((line for line in lines if line and "Removing leading" not in line), "no reason given")


def require_an_exit(program: str, returncode: int) -> None:
    if returncode < 0:
        raise Failure(f"{program} was killed by {signal.Signals(-returncode).name}")
