"""Termination signals at every point of a run."""

import os
import random
import signal
import threading
import time
from dataclasses import dataclass, field
from pathlib import Path

import pytest

from device import until
from device.bundles import INSTALLED
from device.cases import (METADATA_FAILED, RETRIES, SEND_EVENT, SET_PROP, STAGES, TEMPLATE, Change,
                          answer, together, going_down, nothing, own_lines, script, setting, told_user)
from device.gate import Gate
from device.https_server import Answer
from device.run import Run
from device.virtual_device import ARCHIVE, DOCUMENT, VirtualDevice

TERMINATION = (signal.SIGTERM, signal.SIGQUIT, signal.SIGINT, signal.SIGHUP)
HARMLESS = (signal.SIGCHLD, signal.SIGPIPE, signal.SIGXFSZ, signal.SIGCONT, signal.SIGWINCH)


@dataclass(frozen=True)
class Moment:
    """Where a run stands still: in a program, in a download, or in the pause after one."""
    place: str
    stages: int  # that have begun
    requests: int
    change: Change = nothing
    shown: tuple[str, ...] = ()  # by then, and by the program itself
    event: threading.Event = field(default_factory=threading.Event)

    def prepare(self, device: VirtualDevice, gate: Gate) -> None:
        self.change(device)
        if self.place == "run.sh":
            script(f"{Gate.WAIT}echo > {INSTALLED}")(device)
        elif self.place in (DOCUMENT, ARCHIVE):
            content = device.published.document if self.place == DOCUMENT else device.published.archive
            device.server.answer(self.place, Answer(content, event=self.event))
        elif self.place != "pause":
            gate.hold(self.place)

    def reach(self, device: VirtualDevice, gate: Gate) -> tuple[Run, int | None]:
        """The run, and the program in which it stands if there is one."""
        self.event.clear()
        device.server.requests.clear()
        run = device.start()
        if self.place not in ("pause", DOCUMENT, ARCHIVE):
            return run, gate.wait()
        until(lambda: len(device.server.requests) == self.requests)
        if self.place == "pause":
            until(lambda: sum(METADATA_FAILED in line for line in run.log_lines()) == self.requests)
        return run, None

    def release(self, gate: Gate) -> None:
        self.event.set()
        gate.open()


STALLED, RUN_SH = Moment(DOCUMENT, 1, 1), Moment("run.sh", 5, 2)
MOMENTS = [
    STALLED, Moment("pause", 1, 2, together(setting(RETRIES, "9"), answer(DOCUMENT, Answer(status=503)))),
    Moment(ARCHIVE, 2, 2), Moment("/bin/base64", 3, 2), Moment("/usr/bin/openssl", 3, 2),
    Moment("/bin/tar", 4, 2), RUN_SH,
    Moment(SET_PROP, 1, 0, setting(TEMPLATE, None), ("load = zelo",)),
    Moment(SEND_EVENT, 1, 0, setting(TEMPLATE, None), ("load = zelo", "showError 99"))]


@pytest.mark.parametrize("moment", MOMENTS, ids=[moment.place for moment in MOMENTS])
def test_each_signal(device: VirtualDevice, gate: Gate, moment: Moment) -> None:
    """The first one counts, a running program is let come to its end, and nothing new begins."""
    moment.prepare(device, gate)
    for signum in TERMINATION:
        device.path(INSTALLED).unlink(missing_ok=True)
        before = len(told_user(device))
        run, program = moment.reach(device, gate)
        if signum == signal.SIGINT:  # from the keyboard, which also ends the program
            os.killpg(run.pid, signum)
        elif signum == signal.SIGQUIT:  # when the step is done and the daemon has not noticed it yet
            run.send(signal.SIGSTOP)
            moment.release(gate)
            until(lambda: not program or ") Z " in Path(f"/proc/{program}/stat").read_text())
            time.sleep(0.1)
            run.send(signum)
            run.send(signal.SIGCONT)
        else:
            run.send(signum)
            run.wait_for_line(going_down(signum))
            for other in random.Random(0).choices(TERMINATION + HARMLESS, k=500):
                run.send(other)
            if program:
                time.sleep(0.1)
                assert run.status is None and device.lock_holder() == run.pid
        moment.release(gate)
        assert run.wait() == -signum
        assert device.lock_holder() is None
        lines = own_lines(run)
        assert [line for line in lines if line in STAGES] == STAGES[:moment.stages], lines
        assert [line for line in lines if "signum" in line] == lines[-1:] == [going_down(signum)], lines
        ended = program and signum == signal.SIGINT
        assert tuple(told_user(device)[before:]) == (moment.shown[:-1] if ended else moment.shown)
        assert device.path(INSTALLED).exists() == (moment is RUN_SH and not ended)
        assert len(device.server.requests) == moment.requests


@pytest.mark.usefixtures("plain_only")
@pytest.mark.parametrize("moment", [None, STALLED, RUN_SH], ids=["first line", "download", "run.sh"])
def test_stuck_log_receiver(device: VirtualDevice, gate: Gate, moment: Moment | None) -> None:
    if moment:
        moment.prepare(device, gate)
        run, _ = moment.reach(device, gate)
    device.syslog.fill()
    if not moment:
        run = device.start()
        until(lambda: device.lock_holder() == run.pid)
        time.sleep(0.3)  # it comes to its first line, and no further
    run.send(signal.SIGTERM)
    if moment is RUN_SH:
        time.sleep(3)
        assert run.status is None and device.lock_holder() == run.pid
        moment.release(gate)
    assert run.wait() == -signal.SIGTERM
    assert device.lock_holder() is None


@pytest.mark.usefixtures("plain_only")
@pytest.mark.parametrize("signum", [signal.SIGSEGV, signal.SIGABRT], ids=["SIGSEGV", "SIGABRT"])
def test_crash_leaves_its_dump(device: VirtualDevice, signum: signal.Signals) -> None:
    script(f"kill -{int(signum)} $PPID")(device)
    run = device.start()
    assert run.wait() == -signum and f"fatal signal {signum.name}" in run.output(), run.output()


@pytest.mark.usefixtures("confined_only")
def test_first_process_of_a_container(device: VirtualDevice) -> None:
    """Signals have no default action there: its exit status tells which one ended it."""
    script("kill -TERM $PPID")(device)
    run = device.start(prefix=["/usr/bin/unshare", "--pid", "--fork"])
    assert run.wait() == 128 + signal.SIGTERM
    assert own_lines(device) == [*STAGES, going_down(signal.SIGTERM)]
