"""What the daemon inherits does not matter to it, and what it leaves to others is in order."""

import itertools
import json
import os
import signal
import sys
from collections.abc import Collection

from device.gate import Gate, until
from device.virtual_device import VirtualDevice

TERMINATION = (signal.SIGTERM, signal.SIGQUIT, signal.SIGINT, signal.SIGHUP)

# A shell would put some of this right.
STARTER = """
import json, os, signal, sys
ignored, blocked, opened, closed = json.loads(sys.argv[1])
for signum in (signal.SIGPIPE, signal.SIGXFSZ): signal.signal(signum, signal.SIG_DFL)
for signum in ignored: signal.signal(signum, signal.SIG_IGN)
signal.pthread_sigmask(signal.SIG_SETMASK, blocked)
for fd in opened: os.dup2(2, fd)
for fd in closed: os.close(fd)
os.execv(sys.argv[2], sys.argv[2:])
"""


def starter(ignored: Collection[int] = (), blocked: Collection[int] = (), opened: Collection[int] = (),
            closed: Collection[int] = ()) -> list[str]:
    state = json.dumps([list(ignored), list(blocked), list(opened), list(closed)])
    return [sys.executable, "-ISc", STARTER, state]


STATES = [{"closed": closed, "ignored": ignored, "blocked": blocked}
          for closed in [fds for count in range(4) for fds in itertools.combinations((0, 1, 2), count)]
          for ignored in ((), (signal.SIGCHLD,))
          for blocked in ((), (*TERMINATION, signal.SIGCHLD))]
STATES += [{"opened": (7, 1000), "ignored": (*TERMINATION, signal.SIGPIPE, signal.SIGXFSZ, signal.SIGUSR1)},
           {"closed": (0, 2), "opened": (3, 4, 5), "blocked": range(1, signal.SIGRTMAX + 1)}]


def test_whatever_is_inherited_the_script_finds_order(device: VirtualDevice) -> None:
    assert len(STATES) == 34
    device.publish(device.make_bundle(script="#!/usr/bin/zelo-probe\n"))
    for state in STATES:
        device.path("/tmp/probe.out").unlink(missing_ok=True)
        before = device.work_directories()
        run = device.start(last=starter(**state), env={"PATH": "/bin", "SECRET": "x"})
        assert run.wait() == 0, (state, run.log_lines())
        [work] = set(device.work_directories()) - set(before)
        assert json.loads(device.path("/tmp/probe.out").read_text()) == {
            "argv": ["/usr/bin/zelo-probe", f"/tmp/{work.name}/run.sh"], "environ": [], "cwd": "/",
            "descriptors": [0, 1, 2], "blocked": [], "ignored": []}, state


def test_what_a_script_leaves_behind_holds_nothing(device: VirtualDevice, gate: Gate) -> None:
    leave = f"( {gate.WAIT} exec /usr/bin/zelo-probe ) > /dev/null 2>&1 &\necho $! > /run/left\n"
    device.publish(device.make_bundle(script=f"#!/bin/sh\n{leave}"))
    left = []
    for _ in range(2):
        assert device.start().wait() == 0 and device.lock_holder() is None
        gate.wait()
        left.append(int(device.path("/run/left").read_text()))
    assert all(os.path.exists(f"/proc/{pid}") for pid in left)
    gate.open()
    until(lambda: device.path("/tmp/probe.out").exists() and device.path("/tmp/probe.out").read_text())
    found = json.loads(device.path("/tmp/probe.out").read_text())
    # The shell itself lets what it starts with & ignore the keyboard's signals.
    assert found["descriptors"] == [0, 1, 2] and set(found["ignored"]) <= {signal.SIGINT, signal.SIGQUIT}
    assert found["blocked"] == []
