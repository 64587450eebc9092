"""Programs of a device that stop in the middle of a run until they are let go on."""

import os
import signal
from pathlib import Path

from device import until
from device.virtual_device import VirtualDevice


def is_stopped(pid: int) -> bool:
    """Also by a tracer."""
    return Path(f"/proc/{pid}/stat").read_text().rpartition(") ")[2].startswith(("T", "t"))


class Gate:
    # For shell scripts: says which process stops, then stops.
    WAIT = "echo $$ > /run/waiting\nkill -STOP $$\n"

    def __init__(self, device: VirtualDevice):
        self._device = device
        self._waiting = device.path("/run/waiting")
        self._stopped: list[int] = []

    def hold(self, program: str) -> None:
        """From now on the program stops before it does its work."""
        held = f"{program}.held"
        self._device.path(program).rename(self._device.path(held))
        self._device.write(program, f'#!/bin/sh\n{self.WAIT}exec {held} "$@"\n', 0o755)

    def wait(self) -> int:
        """The process that has stopped, as soon as there is one."""
        until(lambda: self._waiting.exists() and self._waiting.read_text().endswith("\n"))
        pid = int(self._waiting.read_text())
        self._waiting.unlink()
        until(lambda: is_stopped(pid))
        self._stopped.append(pid)
        return pid

    def open(self) -> None:
        """Lets all that have stopped go on."""
        while self._stopped:
            os.kill(self._stopped.pop(), signal.SIGCONT)
