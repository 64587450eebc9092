"""A root directory that systemd runs, with this machine's network."""

import os
import re
import shlex
import subprocess
from collections.abc import Iterator
from contextlib import ExitStack, contextmanager
from pathlib import Path
from typing import Self

import pytest

from device import until

# If this process or one of these is killed, nothing of the root survives.
NSPAWN = ("setpriv", "--pdeathsig=KILL", "unshare", "--pid", "--mount-proc", "--fork", "--kill-child",
          "systemd-nspawn", "--quiet", "--register=no", "--keep-unit", "--link-journal=no",
          "--volatile=overlay")


@contextmanager
def control_groups(name: str) -> Iterator[list[Path]]:
    """A new control group in each hierarchy that systemd uses, removed once nothing runs there."""
    own = re.findall(r"^\d+:(name=systemd|):/(.*)$", Path("/proc/self/cgroup").read_text(), re.MULTILINE)
    mixed = Path("/sys/fs/cgroup/unified")
    places = {"": mixed if mixed.exists() else mixed.parent, "name=systemd": Path("/sys/fs/cgroup/systemd")}
    groups = [places[hierarchy] / path / name for hierarchy, path in own]
    try:
        for group in groups:
            group.mkdir()
    except OSError as error:
        pytest.skip(f"no control groups can be made here: {error}")
    remove = ["find", *groups, "-depth", "-type", "d", "-delete"]
    try:
        yield groups
    finally:
        until(lambda: subprocess.run(remove, stderr=subprocess.DEVNULL, check=False).returncode == 0)


class BootedRoot:
    """`root` with systemd running, from construction to leaving the context; skips the test where that is
    impossible. The directory stays as it is: what is written goes to memory."""

    def __init__(self, root: Path):
        with ExitStack() as stack:
            # Their own, or two roots that run at once would end each other's processes.
            name = f"booted-root.{os.getpid()}"
            groups = stack.enter_context(control_groups(name))
            enter = " ".join(f"echo $$ >{shlex.quote(str(group))}/cgroup.procs;" for group in groups)
            nspawn = ("sh", "-c", f'{enter} exec "$@"', "sh", *NSPAWN, f"--machine={name}",
                      f"--directory={root}")
            trial = subprocess.run([*nspawn, "true"], capture_output=True, text=True, check=False)
            if trial.returncode != 0:
                pytest.skip(f"systemd-nspawn does not run here: {trial.stderr.strip()}")
            self._boot = subprocess.Popen([*nspawn, "--boot", "--console=pipe"], stdin=subprocess.DEVNULL)
            stack.callback(self._boot.wait)
            stack.callback(self._boot.kill)
            until(self._is_up)
            self._stack = stack.pop_all()

    def __enter__(self) -> Self:
        return self

    def __exit__(self, *exception: object) -> None:
        self._stack.close()

    def path(self, path: str) -> Path:
        """Where an absolute path of the root can be reached from here."""
        return Path(f"/proc/{self._leader()}/root{path}")

    def run(self, *command: str, status: int | None = 0) -> str:
        """What the program, run inside, wrote; fails unless it ends with `status`, None for any."""
        done = subprocess.run(["nsenter", f"--target={self._leader()}", "--all", *command], text=True,
                              check=False, stdin=subprocess.DEVNULL, stdout=subprocess.PIPE,
                              stderr=subprocess.STDOUT, timeout=60)
        if status not in (None, done.returncode):
            raise RuntimeError(f"{command} ended with status {done.returncode}: {done.stdout}")
        return done.stdout

    def _leader(self) -> str:
        """The process id of systemd; empty when it has not been started yet."""
        pid = str(self._boot.pid)
        for _ in ("systemd-nspawn", "systemd"):
            pid = Path(f"/proc/{pid}/task/{pid}/children").read_text().strip() if pid else ""
        return pid

    def _is_up(self) -> bool:
        if self._boot.poll() is not None:
            raise RuntimeError("systemd-nspawn has ended")
        return self._leader() != "" and self.run("systemctl", "is-system-running", status=None) in (
            "running\n", "degraded\n")
