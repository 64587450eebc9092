"""What runs alone ends as it does otherwise, and leaves nothing."""

import signal
import subprocess
import sys
from pathlib import Path

import pytest

from device import PATIENCE, alone

# Without the variable, as where nothing else runs alone.
ALONE = ["/usr/bin/env", f"--unset={alone.VARIABLE}", sys.executable, "-m", "device.alone"]
LEAVING = "trap 'echo ended; exit 4' TERM; sleep 1000 & touch $ZELO_ALONE/file; echo ready; wait"


@pytest.mark.parametrize("script, status", [("exit 3", 3), ("kill -TERM $$", -signal.SIGTERM),
                                            ("kill -KILL $$", -signal.SIGKILL)])
def test_its_end_comes_through(script: str, status: int) -> None:
    assert subprocess.run([*ALONE, "sh", "-c", script], check=False).returncode == status


def seen_here() -> tuple[list[Path], str]:
    return sorted(alone.place().iterdir()), Path("/proc/self/mounts").read_text()


@pytest.mark.usefixtures("confined_only")
@pytest.mark.parametrize("signum, status, said", [(signal.SIGTERM, 4, "ended\n"),
                                                  (signal.SIGKILL, -signal.SIGKILL, "")])
def test_nothing_is_left(signum: int, status: int, said: str) -> None:
    before = seen_here()
    with subprocess.Popen([*ALONE, "sh", "-c", LEAVING], stdout=subprocess.PIPE, text=True) as process:
        assert process.stdout is not None
        assert process.stdout.readline() == "ready\n"
        process.send_signal(signum)
        assert process.communicate(timeout=PATIENCE)[0] == said  # to the end of the last that may write
    assert process.returncode == status
    assert seen_here() == before
