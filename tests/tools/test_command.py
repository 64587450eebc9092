"""How a command ends, whatever ends it."""

import signal
import subprocess
from pathlib import Path

import pytest

TOOLS = Path(__file__).resolve().parents[2] / "tools"
STARTER = """
import signal, sys
sys.argv[0] = "/bin/it"
sys.path[:0] = [{tools!r}, "."]
signal.signal(signal.SIGHUP, signal.SIG_IGN)
from command import run_command
run_command("it", failed=9)
"""
MODULE = """
import os, subprocess, sys
def main():
    try:
        {}
    finally:
        print("cleaned up")
"""

# What the command does, its exit status, and what it says.
ENDINGS = {
    "done": ("return 5", 5, ""),
    "wrong usage": ("sys.exit(2)", 2, ""),
    "failure": ("raise RuntimeError('why')", 9, "it: why\n"),
    "file": ("open('none')", 9, "it: none: No such file or directory\n"),
    "module": ("import none", 9, "it: No module named 'none'\n"),
    "program": ("subprocess.run('false', check=True)", 9,
                "it: Command 'false' returned non-zero exit status 1.\n"),
    "Ctrl-C": ("os.kill(os.getpid(), 2)", -signal.SIGINT, "it: stopped by SIGINT\n"),
    "stopped": ("os.kill(os.getpid(), 15)", -signal.SIGTERM, "it: stopped by SIGTERM\n"),
    "stopped twice": ("""try:
            os.kill(os.getpid(), 15)
        finally:
            os.kill(os.getpid(), 2)""", -signal.SIGTERM, "it: stopped by SIGTERM\n"),
    "ignored by the starter": ("os.kill(os.getpid(), 1); return 0", 0, ""),
}


@pytest.mark.parametrize("body, status, says", ENDINGS.values(), ids=ENDINGS)
def test_ending(tmp_path: Path, body: str, status: int, says: str) -> None:
    (tmp_path / "it.py").write_text(MODULE.format(body))
    done = subprocess.run(["/usr/bin/python3", "-c", STARTER.format(tools=str(TOOLS))], cwd=tmp_path,
                          capture_output=True, text=True, check=False, timeout=60)
    assert (done.returncode, done.stderr) == (status, says)
    assert done.stdout == "cleaned up\n"
