"""Many starts at once."""

import os
import signal

import pytest

from device.gate import Gate, until
from device.run import Run
from device.virtual_device import VirtualDevice

from changes import ANOTHER, END, STAGES


@pytest.fixture
def count(plain: bool) -> int:
    """How many starts; under an emulator each takes ten times as long."""
    return 50 if plain else 10


def start_at_once(device: VirtualDevice, line: Gate, count: int) -> list[Run]:
    prefix = ["/bin/sh", "-c", f'read line < {line.path}; exec "$@"', "sh"]
    runs = [device.start(prefix=prefix) for _ in range(count)]
    line.open(count)
    return runs


def the_one(device: VirtualDevice, gate: Gate, runs: list[Run]) -> Run:
    """The only start that got further than the others, which have ended as they must."""
    gate.wait()
    until(lambda: sum(run.status is None for run in runs) == 1)
    [winner] = [run for run in runs if run.status is None]
    for run in runs:
        lines = [line for line in run.log_lines() if "TransferWrapper" not in line]
        if run is winner:
            assert lines == STAGES and device.lock_holder() == run.pid
        else:
            assert run.status == 1 and lines == [ANOTHER]
    return winner


def test_many_at_once(device: VirtualDevice, gate: Gate, count: int) -> None:
    device.publish(device.make_bundle(script=f"#!/bin/sh\n{gate.WAIT}"))
    with Gate(device, "line") as line:
        the_one(device, gate, start_at_once(device, line, count)).stop()
        assert device.lock_holder() is None
        gate.open()  # for what the killed one has left behind
        winner = the_one(device, gate, start_at_once(device, line, count))
    gate.open()
    assert winner.wait() == 0 and winner.log_lines()[-1] == END and device.lock_holder() is None
    assert len(device.work_directories()) == 2 * count and device.shell_lines() == []
    assert {work.stat().st_mode & 0o7777 for work in device.work_directories()} == {0o700}


def test_stale_pid_file(device: VirtualDevice) -> None:
    for content in (f"{os.getpid()}\n", "1\n", "", "no number", "9" * 5000):
        device.write("/var/run/zeloinstall.pid", content)
        assert device.start().wait() == 0, content


def test_lock_whose_file_was_removed(device: VirtualDevice, gate: Gate) -> None:
    """Its release does not touch the lock that another start has taken meanwhile."""
    device.publish(device.make_bundle(script=f"#!/bin/sh\n{gate.WAIT}"))
    first = device.start()
    gate.wait()
    device.path("/var/run/zeloinstall.pid").unlink()
    second = device.start()
    gate.wait()
    os.kill(second.pid, signal.SIGSTOP)  # so that the first one's script is let go on
    gate.open()
    assert first.wait() == 0 and device.lock_holder() == second.pid
    assert device.start().wait() == 1
