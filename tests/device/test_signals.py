"""Termination signals at every point of a run."""

import os
import random
import signal
import time
from collections.abc import Callable
from dataclasses import dataclass

import pytest

from device.demo import RETRIES, TEMPLATE
from device.gate import Gate, until
from device.https_server import Stall, Status
from device.run import Run
from device.virtual_device import ARCHIVE, DOCUMENT, VirtualDevice

from changes import END, SEND_EVENT, SET_PROP, STAGES, answer, both, going_down, setting

RELEASE_LOG = "/usr/lib/release-log.so"
TERMINATION = (signal.SIGTERM, signal.SIGQUIT, signal.SIGINT, signal.SIGHUP)
HARMLESS = (signal.SIGCHLD, signal.SIGPIPE, signal.SIGCONT, signal.SIGWINCH, signal.SIGURG)


@dataclass(frozen=True)
class Moment:
    """A moment at which a run stands still: in a program, or else after so many requests."""
    name: str
    stages: int  # that have begun
    program: str = ""
    requests: int = 0
    change: Callable[[VirtualDevice], object] = lambda device: None
    shown: tuple[str, ...] = ()  # by then, and by the program itself

    def prepare(self, device: VirtualDevice, gate: Gate) -> None:
        self.change(device)
        if self.program == "run.sh":
            device.publish(device.make_bundle(script=f"#!/bin/sh\n{gate.WAIT}echo > /tmp/installed\n"))
        elif self.program:
            gate.hold(self.program)

    def reach(self, device: VirtualDevice, gate: Gate, **start) -> Run:
        device.server.requests.clear()
        run = device.start(**start)
        if self.program:
            gate.wait()
        else:
            until(lambda: len(device.server.requests) == self.requests)
            time.sleep(0.1)  # for what the answer brings about
        return run


RUN_SH = Moment("run.sh", 5, "run.sh")
STALLED = Moment("metadata download", 1, requests=1, change=answer(DOCUMENT, Stall(b"{")))
PAUSE = Moment("pause", 1, requests=1, change=both(setting(RETRIES, "9"), answer(DOCUMENT, Status(503))))
PROGRAMS = [
    Moment("base64", 3, "/bin/base64"), Moment("openssl", 3, "/usr/bin/openssl"),
    Moment("tar", 4, "/bin/tar"), RUN_SH,
    Moment("property", 1, SET_PROP, change=setting(TEMPLATE, None), shown=("load = zelo",)),
    Moment("event", 1, SEND_EVENT, change=setting(TEMPLATE, None), shown=("load = zelo", "showError 99"))]
BUNDLE = Moment("bundle download", 2, requests=2, change=answer(ARCHIVE, Stall()))
MOMENTS = [STALLED, PAUSE, BUNDLE, *PROGRAMS]


@pytest.fixture
def env(plain: bool) -> dict[str, str]:
    return {"LD_PRELOAD": RELEASE_LOG} if plain else {}


def storm(run: Run, count: int) -> None:
    for signum in random.choices(TERMINATION + HARMLESS, k=count):
        run.send(signum)


def shown(device: VirtualDevice) -> list[str]:
    return [line.split(": ")[1] for line in device.shell_lines()]


def assert_released_once(device: VirtualDevice, env: dict[str, str]) -> None:
    """And no program that the run has started was living then."""
    assert device.lock_holder() is None and device.path("/var/run/zeloinstall.pid").read_text() == ""
    if env:
        assert device.path("/run/releases").read_text() == "alone\n"
        device.path("/run/releases").unlink()


def assert_ended(device: VirtualDevice, run: Run, signum: int, stages: int, env: dict[str, str]) -> None:
    assert run.wait(20) == -signum
    lines = run.log_lines()
    assert [line for line in lines if "signum=" in line] == [going_down(signum)]
    assert [line for line in lines if line in STAGES] == STAGES[:stages]
    assert_released_once(device, env)


@pytest.mark.parametrize("moment", MOMENTS, ids=lambda moment: moment.name)
def test_each_signal(device: VirtualDevice, gate: Gate, env: dict[str, str], moment: Moment) -> None:
    """The first one counts, and a running program is let come to its end."""
    moment.prepare(device, gate)
    for signum in TERMINATION:
        run = moment.reach(device, gate, env=env)
        assert device.lock_holder() == run.pid
        run.send(signum)
        run.wait_for_line(going_down(signum))
        storm(run, 500)
        if moment.program:
            time.sleep(0.1)
            assert run.status is None and device.lock_holder() == run.pid
            gate.open()
        assert_ended(device, run, signum, moment.stages, env)
    assert shown(device) == [*moment.shown] * len(TERMINATION)
    assert device.path("/tmp/installed").exists() == (moment is RUN_SH)


@pytest.mark.parametrize("moment", PROGRAMS, ids=lambda moment: moment.name)
def test_keyboard_interrupt(device: VirtualDevice, gate: Gate, env: dict[str, str], moment: Moment) -> None:
    """It ends the running program as well, which is no success, and no other program is started."""
    moment.prepare(device, gate)
    run = moment.reach(device, gate, env=env, start_new_session=True)
    os.killpg(run.pid, signal.SIGINT)
    assert_ended(device, run, signal.SIGINT, moment.stages, env)
    assert shown(device) == [*moment.shown[:-1]] and not device.path("/tmp/installed").exists()


def test_storms_at_any_time(device: VirtualDevice, env: dict[str, str]) -> None:
    begin, count = time.monotonic(), 60
    assert device.start().wait() == 0
    duration = time.monotonic() - begin
    for number in range(count):
        device.path("/tmp/installed").unlink(missing_ok=True)
        run = device.start(env=env)
        time.sleep(1.1 * duration * number / count)
        storm(run, 300)
        status, lines = run.wait(), run.log_lines()
        said = [line for line in lines if "signum=" in line]
        if STAGES[0] in lines:
            late = [[END, going_down(signum)] for signum in TERMINATION]  # when the end had come anyway
            assert said in [[going_down(-status)], *late]
            assert_released_once(device, env)
        else:  # nothing had begun that would have to be put in order
            assert status < 0 and said in ([], [going_down(-status)]) and device.lock_holder() is None
            device.path("/run/releases").unlink(missing_ok=True)
        assert not device.path("/tmp/installed").exists() or STAGES[-1] in lines
    assert shown(device) == [] and device.start().wait() == 0


@pytest.mark.parametrize("moment", [None, STALLED, RUN_SH], ids=["first line", STALLED.name, RUN_SH.name])
def test_log_receiver_that_has_stopped_reading(device: VirtualDevice, gate: Gate, plain_only: None,
                                               moment: Moment | None) -> None:
    if moment is None:
        device.syslog.fill()
        run = device.start()
        until(lambda: device.lock_holder() == run.pid)
        time.sleep(0.3)  # it comes to its first line, and no further
    else:
        moment.prepare(device, gate)
        run = moment.reach(device, gate)
        device.syslog.fill()
    begin = time.monotonic()
    run.send(signal.SIGTERM)
    if moment is RUN_SH:
        time.sleep(3)
        assert run.status is None and device.lock_holder() == run.pid
        gate.open()
    assert run.wait(20) == -signal.SIGTERM and time.monotonic() - begin < 8
    assert device.lock_holder() is None
