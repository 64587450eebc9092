"""A root directory that systemd runs, with this machine's network."""

import os
import re
import shlex
import subprocess
from pathlib import Path
from types import TracebackType
from typing import Self

from device.gate import until

# If this process or one of these is killed, nothing of the root survives.
NSPAWN = ("setpriv", "--pdeathsig=KILL", "unshare", "--pid", "--mount-proc", "--fork", "--kill-child",
          "systemd-nspawn", "--quiet", "--register=no", "--keep-unit", "--link-journal=no",
          "--volatile=overlay")


class CannotBoot(Exception):
    """Why this user, or this machine, cannot run such a root."""


def control_groups(name: str) -> list[Path]:
    """A new control group in each hierarchy that systemd uses."""
    own = re.findall(r"^\d+:(name=systemd|):/(.*)$", Path("/proc/self/cgroup").read_text(), re.MULTILINE)
    mixed = Path("/sys/fs/cgroup/unified")
    places = {"": mixed if mixed.exists() else mixed.parent, "name=systemd": Path("/sys/fs/cgroup/systemd")}
    groups = [places[hierarchy] / path / name for hierarchy, path in own]
    for group in groups:
        group.mkdir()
    return groups


def remove_control_groups(groups: list[Path]) -> bool:
    """False while there are processes in one."""
    try:
        for group in groups:
            for part, _, _ in os.walk(group, topdown=False):
                os.rmdir(part)
    except OSError:
        return False
    return True


class BootedRoot:
    """`root` with systemd running, from entering the context to leaving it. The directory stays as it is:
    what is written goes to memory."""

    def __init__(self, root: Path):
        if os.geteuid() != 0:
            raise CannotBoot("needs root")
        # Their own, or two roots that run at once would end each other's processes.
        name = f"booted-root.{os.getpid()}"
        try:
            self._groups = control_groups(name)
        except OSError as error:
            raise CannotBoot(f"no control groups can be made here: {error}") from None
        enter = " ".join(f"echo $$ >{shlex.quote(str(group))}/cgroup.procs;" for group in self._groups)
        self._nspawn = ("sh", "-c", f'{enter} exec "$@"', "sh", *NSPAWN, f"--machine={name}",
                        f"--directory={root}")
        self._boot: subprocess.Popen[bytes] | None = None
        trial = subprocess.run([*self._nspawn, "true"], capture_output=True, text=True, check=False)
        if trial.returncode != 0:
            until(lambda: remove_control_groups(self._groups))
            raise CannotBoot(f"systemd-nspawn does not run here: {trial.stderr.strip()}")

    def __enter__(self) -> Self:
        self._boot = subprocess.Popen([*self._nspawn, "--boot", "--console=pipe"], stdin=subprocess.DEVNULL)
        try:
            until(self._is_up)
        except BaseException:
            self.__exit__(None, None, None)
            raise
        return self

    def __exit__(self, kind: type[BaseException] | None, error: BaseException | None,
                 trace: TracebackType | None) -> None:
        if self._boot:
            self._boot.kill()
            self._boot.wait()
        until(lambda: remove_control_groups(self._groups))

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
        pid = str(self._boot.pid) if self._boot else ""
        for _ in ("systemd-nspawn", "systemd"):
            children = Path(f"/proc/{pid}/task/{pid}/children")
            pid = children.read_text().strip() if pid else ""
        return pid

    def _is_up(self) -> bool:
        if self._boot is None or self._boot.poll() is not None:
            raise RuntimeError("systemd-nspawn has ended")
        return self._leader() != "" and self.run("systemctl", "is-system-running", status=None) in (
            "running\n", "degraded\n")
