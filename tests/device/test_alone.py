"""What runs alone ends as it does otherwise, and leaves nothing."""

import signal
import subprocess
import sys
from pathlib import Path

import pytest

from device import alone
from device.gate import until

# Without the variable, as where nothing else runs alone.
ALONE = ["/usr/bin/env", f"--unset={alone.VARIABLE}", sys.executable, "-m", "device.alone"]
LEAVING = "trap 'echo ended; exit 4' TERM; sleep 31415 & touch $ZELO_ALONE/file; echo ready; wait"


def sleepers() -> list[str]:
    listing = subprocess.check_output(["ps", "-eo", "args"], text=True)
    return [line for line in listing.splitlines() if line == "sleep 31415"]


@pytest.mark.parametrize("script, status", [("exit 3", 3), ("kill -TERM $$", -signal.SIGTERM),
                                            ("kill -KILL $$", -signal.SIGKILL)])
def test_its_end_comes_through(script: str, status: int) -> None:
    assert subprocess.run([*ALONE, "sh", "-c", script], check=False).returncode == status


@pytest.mark.usefixtures("confined_only")
@pytest.mark.parametrize("signum, status, said", [(signal.SIGTERM, 4, "ended\n"),
                                                  (signal.SIGKILL, -signal.SIGKILL, "")])
def test_nothing_is_left(signum: int, status: int, said: str) -> None:
    before = sorted(alone.place().iterdir()), Path("/proc/self/mounts").read_text()
    with subprocess.Popen([*ALONE, "sh", "-c", LEAVING], stdout=subprocess.PIPE, text=True) as process:
        assert process.stdout and process.stdout.readline() == "ready\n" and len(sleepers()) == 1
        process.send_signal(signum)
        assert (process.stdout.read(), process.wait()) == (said, status)
    until(lambda: not sleepers())
    assert (sorted(alone.place().iterdir()), Path("/proc/self/mounts").read_text()) == before
