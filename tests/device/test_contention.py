"""Many starts at once."""

import ctypes
import os
from multiprocessing import Pool
from pathlib import Path

import pytest

from device.gate import Gate, until
from device.run import Run
from device.virtual_device import VirtualDevice

from changes import ANOTHER, END, STAGES, ended


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
    refused = [ANOTHER, ended("one more instance of zeloinstall is running.")]
    for run in runs:
        lines = [line for line in run.log_lines() if "TransferWrapper" not in line]
        if run is winner:
            assert lines == STAGES and device.lock_holder() == run.pid
        else:
            assert run.status == 1 and lines == refused
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


def take_turns(library: str, directory: Path, turns: int) -> bool:
    """Whether this process was alone each time that it had the lock."""
    platform, pid_file, inside = ctypes.CDLL(library), bytes(directory / "pid"), directory / "inside"
    while turns > 0:
        if (handle := platform.qorvex_daemon_checksingleton(pid_file)) < 0:
            continue
        try:
            os.close(os.open(inside, os.O_CREAT | os.O_EXCL))
            inside.unlink()
        except OSError:
            return False
        platform.qorvex_daemon_cleansingleton(pid_file, handle)
        turns -= 1
    return True


@pytest.mark.usefixtures("plain_only")
def test_lock_never_goes_to_two(build: Path, tmp_path: Path) -> None:
    """Nor where one process comes as another goes."""
    library = str(build / "standin" / "libzelo_platform.so")
    with Pool(4) as pool:
        assert pool.starmap(take_turns, [(library, tmp_path, 1000)] * 4) == [True] * 4
