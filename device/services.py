"""The programs that run beside the daemon: the message bus, the transfer service and the UI shell."""

import re
import subprocess
import threading
from collections.abc import Sequence
from pathlib import Path

from device import PATIENCE

NO_ENVIRONMENT: dict[str, str] = {}
BUS_SOCKET = "run/kbus.sock"
TRANSFER_SERVICE, SHELL = "com.qorvex.transfer", "com.qorvex.vestrel"
BUS_CONFIG = """\
<!DOCTYPE busconfig PUBLIC "-//freedesktop//DTD D-BUS Bus Configuration 1.0//EN"
 "http://www.freedesktop.org/standards/dbus/1.0/busconfig.dtd">
<busconfig>
  <listen>unix:path={socket}</listen>
  <auth>EXTERNAL</auth>
  <policy context="default">
    <allow user="*"/>
    <allow send_destination="*" eavesdrop="true"/>
    <allow eavesdrop="true"/>
    <allow own="*"/>
  </policy>
</busconfig>
"""


def enter(root: Path) -> list[str]:
    """Prefix for a program inside `root`; its path and arguments follow. The process id stays."""
    return ["/usr/sbin/chroot", str(root)]


class Service:
    """A program that is ready once it has written a certain line; what it writes is kept."""

    def __init__(self, command: Sequence[str | Path], cwd: Path, ready: str):
        self._name = " ".join(map(str, command))
        self._lines: list[str] = []
        self._ended = False
        self._changed = threading.Condition()
        self.process = subprocess.Popen(command, stdin=subprocess.DEVNULL, stdout=subprocess.PIPE,
                                        stderr=subprocess.STDOUT, cwd=cwd, env=NO_ENVIRONMENT, text=True,
                                        errors="replace", start_new_session=True)
        self._reader = threading.Thread(target=self._read, daemon=True)
        self._reader.start()
        try:
            self.wait_for(ready)
        except BaseException:
            self.stop()
            raise

    def lines(self) -> list[str]:
        with self._changed:
            return list(self._lines)

    def wait_for(self, pattern: str) -> str:
        """The first line that matches the regular expression; fails when the program ends without it."""
        def found() -> str | None:
            return next((line for line in self._lines if re.fullmatch(pattern, line)), None)

        with self._changed:
            self._changed.wait_for(lambda: self._ended or found() is not None, PATIENCE)
            if (line := found()) is None:
                raise RuntimeError(f"{self._name}: no line {pattern!r} but {self._lines}")
            return line

    def stop(self) -> None:
        self.process.kill()
        self.process.wait()
        self._reader.join()

    def _read(self) -> None:
        for line in self.process.stdout or ():
            self._append(line.rstrip("\n"))
        with self._changed:
            self._ended = True
            self._changed.notify_all()

    def _append(self, line: str) -> None:
        with self._changed:
            self._lines.append(line)
            self._changed.notify_all()


def start_bus(base: Path, root: Path) -> Service:
    """The message bus. It runs outside the root; programs inside reach its socket."""
    config = base / "bus.conf"
    config.write_text(BUS_CONFIG.format(socket=root / BUS_SOCKET))
    command = ["/usr/bin/dbus-daemon", f"--config-file={config}", "--nofork", "--nopidfile", "--nosyslog",
               "--print-address=1"]
    return Service(command, base, "unix:path=.*")


def set_property(root: Path, service: str, name: str, value: str) -> bool:
    """Whether a service has taken the value. By nothing of the device, because that may be broken."""
    command = ["/usr/bin/dbus-send", f"--bus=unix:path={root / BUS_SOCKET}", "--print-reply",
               f"--dest={service}", "/", "org.freedesktop.DBus.Properties.Set",
               f"string:{service}", f"string:{name}", f"variant:{value}"]
    return subprocess.run(command, env=NO_ENVIRONMENT, capture_output=True, check=False).returncode == 0


class TransferService(Service):
    """The transfer service, inside the root: it downloads for the daemon."""

    PROGRAM = "/usr/sbin/transfer-service"

    def __init__(self, base: Path, entering: Sequence[str]):
        super().__init__([*entering, self.PROGRAM], base, "transfer-service: ready")


class Shell:
    """The UI shell, inside the root."""

    def __init__(self, base: Path, root: Path, entering: Sequence[str]):
        self._root = root
        self._service = Service([*entering, "/usr/bin/vestrel"], base, "vestrel: ready")
        self._asked = 0
        self.stop = self._service.stop

    def lines(self) -> list[str]:
        """What the shell has shown for everything that was sent to it until now."""
        # The bus keeps the order, so the answer to this comes after everything that was sent before.
        self._asked += 1
        if set_property(self._root, SHELL, "load", f"string:barrier-{self._asked}"):
            self._service.wait_for(f"vestrel: load = barrier-{self._asked}")
        own = re.compile(r"vestrel: (ready|load = barrier-\d+)")
        return [line for line in self._service.lines() if not own.fullmatch(line)]
