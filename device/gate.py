"""Programs of a device that wait in the middle of a run until they are let go on."""

import os
import time
from collections.abc import Callable
from typing import TYPE_CHECKING

if TYPE_CHECKING:
    from device.virtual_device import VirtualDevice


def until(condition: Callable[[], object], timeout: float = 30) -> None:
    """Returns as soon as the condition holds."""
    deadline = time.monotonic() + timeout
    while not condition():
        if time.monotonic() > deadline:
            raise TimeoutError("what was waited for did not happen")
        time.sleep(0.002)


class Gate:
    # For shell scripts: says which process waits, then waits.
    WAIT = "echo $$ > /run/waiting\nread line < /run/gate\n"

    def __init__(self, device: "VirtualDevice", name: str = "gate"):
        self._device = device
        self._waiting = device.path("/run/waiting")
        self.path = device.path(f"/run/{name}")
        os.mkfifo(self.path)
        # Open for both, so that neither side waits for the other to come.
        self._gate = os.open(self.path, os.O_RDWR)

    def __enter__(self) -> "Gate":
        return self

    def __exit__(self, *exception: object) -> None:
        os.close(self._gate)

    def hold(self, program: str) -> None:
        """From now on the program waits before it does its work."""
        held = f"{program}.held"
        self._device.path(program).rename(self._device.path(held))
        self._device.write(program, f'#!/bin/sh\n{self.WAIT}exec {held} "$@"\n', 0o755)

    def wait(self) -> int:
        """The process that waits, as soon as there is one."""
        until(lambda: self._waiting.exists() and self._waiting.read_text().endswith("\n"))
        pid = int(self._waiting.read_text())
        self._waiting.unlink()
        return pid

    def open(self, count: int = 1) -> None:
        """Lets so many programs go on."""
        os.write(self._gate, b"\n" * count)
