"""The programs that run beside the daemon: the message bus, the transfer service and the UI shell."""

import shlex
import subprocess
from collections.abc import Sequence
from pathlib import Path

from device import until

NO_ENVIRONMENT: dict[str, str] = {}
BUS_SOCKET = "run/kbus.sock"


def enter(root: Path) -> list[str]:
    """Prefix for a program inside `root`; its path and arguments follow. The process id stays."""
    return ["/usr/sbin/chroot", str(root)]


class Service:
    """A program that is ready once it has written a line that begins with `ready`."""

    def __init__(self, command: Sequence[str], output: Path, ready: str):
        self._command = command
        self._output = output
        self._ready = ready
        self._process: subprocess.Popen[bytes] | None = None

    def start(self) -> None:
        """Returns when it is ready; it works until `stop`."""
        with open(self._output, "wb") as output:
            process = subprocess.Popen(self._command, stdin=subprocess.DEVNULL, stdout=output, stderr=output,
                                       cwd=self._output.parent, env=NO_ENVIRONMENT, start_new_session=True)
        self._process = process
        name = shlex.join(self._command)
        until(lambda: process.poll() is not None or self._is_ready(), f"{name} is not ready")
        if not self._is_ready():
            raise RuntimeError(f"{name} has ended: {self.lines()}")

    def stop(self) -> None:
        if self._process is not None:
            self._process.kill()
            self._process.wait()

    def lines(self) -> list[str]:
        """What it has written since its start."""
        return self._output.read_text(errors="replace").splitlines()

    def _is_ready(self) -> bool:
        return any(line.startswith(self._ready) for line in self.lines())


def bus_command(socket: Path) -> list[str]:
    """What starts the message bus; its first line is its address."""
    return ["/usr/bin/dbus-daemon", "--session", f"--address=unix:path={socket}", "--nofork", "--nopidfile",
            "--nosyslog", "--print-address"]


def set_property(root: Path, service: str, name: str, value: str) -> bool:
    """Whether a service has taken the value. By nothing of the device, because that may be broken."""
    command = ["/usr/bin/dbus-send", f"--bus=unix:path={root / BUS_SOCKET}", "--print-reply",
               f"--dest={service}", "/", "org.freedesktop.DBus.Properties.Set",
               f"string:{service}", f"string:{name}", f"variant:{value}"]
    return subprocess.run(command, env=NO_ENVIRONMENT, capture_output=True, check=False).returncode == 0
