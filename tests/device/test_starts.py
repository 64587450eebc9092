"""What the daemon and its programs inherit, many starts at once, and what is left."""

import itertools
import json
import os
import signal
import sys
import time
from pathlib import Path

from device import until
from device.cases import ANOTHER, own_lines, script, told_user
from device.gate import Gate
from device.virtual_device import VirtualDevice

from test_signals import TERMINATION

# A shell would put some of this right.
STARTER = """
import json, os, signal, sys
closed, opened, ignored, blocked = json.loads(sys.argv[1])
for signum in (signal.SIGPIPE, signal.SIGXFSZ): signal.signal(signum, signal.SIG_DFL)
for signum in ignored: signal.signal(signum, signal.SIG_IGN)
signal.pthread_sigmask(signal.SIG_SETMASK, blocked)
for fd in opened: os.dup2(2, fd)
for fd in closed: os.close(fd)
os.execv(sys.argv[2], sys.argv[2:])
"""
CLOSED = [fds for count in range(4) for fds in itertools.combinations((0, 1, 2), count)]
STATES = [*itertools.product(CLOSED, [()], [(), (signal.SIGCHLD,)], [(), (*TERMINATION, signal.SIGCHLD)]),
          ((), (7, 1000), (*TERMINATION, signal.SIGPIPE, signal.SIGXFSZ, signal.SIGUSR1), ()),
          ((0, 2), (3, 4, 5), (), [*range(1, signal.SIGRTMAX + 1)])]


def found_by(pid: int) -> list[object]:
    """What a script has got; the shell itself has the script open as well."""
    process = Path(f"/proc/{pid}")
    status = dict(line.split(":\t", 1) for line in (process / "status").read_text().splitlines())
    opened = [int(fd.name) for fd in (process / "fd").iterdir() if not os.readlink(fd).endswith("/run.sh")]
    return [sorted(opened), int(status["SigBlk"], 16), int(status["SigIgn"], 16),
            (process / "environ").read_text(), (process / "cmdline").read_text().split("\0"),
            os.readlink(process / "cwd")]


def test_what_the_script_inherits(device: VirtualDevice, gate: Gate) -> None:
    """Standard descriptors, no blocked signals, no environment; what the starter ignores stays ignored."""
    script(Gate.WAIT)(device)
    for state in STATES:
        before = device.work_directories()
        run = device.start(prefix=[sys.executable, "-ISc", STARTER, json.dumps(state)])
        found = found_by(gate.wait())
        gate.open()
        [work] = set(device.work_directories()) - set(before)
        words = ["/bin/sh", f"/tmp/{work.name}/run.sh", ""]
        ignored = sum(1 << (signum - 1) for signum in (signal.SIGUSR1, signal.SIGXFSZ) if signum in state[2])
        assert run.wait() == 0
        assert found == [[0, 1, 2], 0, ignored, "", words, str(device.root)], state


def test_the_script_reads_the_daemons_standard_input(device: VirtualDevice, tmp_path: Path) -> None:
    (tmp_path / "input").write_text("word\n")
    script("read -r word; echo $word >/run/word")(device)
    with open(tmp_path / "input", encoding="ascii") as stdin:
        assert device.start(stdin=stdin).wait() == 0
    assert device.path("/run/word").read_text() == "word\n"


def test_the_environment_is_the_starters(device: VirtualDevice, gate: Gate) -> None:
    """The daemon keeps it, the time zone too; a program that it starts gets none."""
    script(Gate.WAIT)(device)
    run = device.start(env={"TZ": "ZONE+11", "SECRET": "x"})
    environment = found_by(gate.wait())[3]
    gate.open()
    assert run.wait() == 0 and environment == ""
    hours, minutes, seconds = map(int, device.syslog.lines(run.pid)[0].clock.split(":"))
    assert 0 <= (time.time() - 3600 * (hours + 11) - 60 * minutes - seconds) % 86400 < 600


def test_many_at_once(device: VirtualDevice, gate: Gate) -> None:
    """One runs, and the others say so. Once it is killed, the next start runs."""
    script(Gate.WAIT)(device)
    runs = [device.start() for _ in range(20)]
    gate.wait()
    until(lambda: sum(run.status is None for run in runs) == 1)
    [winner] = [run for run in runs if run.status is None]
    assert device.lock_holder() == winner.pid
    assert [(run.status, own_lines(run)) for run in runs if run is not winner] == [(1, [ANOTHER])] * 19
    winner.kill()
    run = device.start()
    gate.wait()
    gate.open()
    assert run.wait() == 0
    assert len(device.work_directories()) == 21
    assert told_user(device) == []
