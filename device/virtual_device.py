"""The virtual device: everything of it in one context manager.

    with VirtualDevice(Path("build/release")) as device:
        device.publish(device.make_bundle())
        run = device.start()
        print(run.wait(), run.log_lines(), device.shell_lines())
"""

import fcntl
import itertools
import os
import shutil
import struct
import subprocess
from collections.abc import Callable, Mapping, Sequence
from contextlib import ExitStack
from pathlib import Path
from typing import Any

from device import alone
from device.architecture import architecture
from device.bundles import SUCCEEDING_SCRIPT, Bundle, make_bundle, sign
from device.https_server import AUTHORITY, HOST, Content, Server, authority
from device.keys import Keys
from device.rootfs import DAEMON, fill, inside, make_null_device
from device.run import Run
from device.services import TRANSFER_SERVICE, Shell, TransferService, enter, set_property, start_bus
from device.syslog_receiver import SyslogReceiver

ARCHIVE = "/zelo_installer.tar.gz"
DOCUMENT = "/zelo_installer_meta.json"
DEVICE_INFO = "[device]\nsoftware_version=123456789012\nsoftware_package_name=base image/1\n"
AUTHORITIES = "/etc/ssl/certs/ca-certificates.crt"
PID_FILE = "/var/run/zeloinstall.pid"
MARKER = "/PRE_GM_DEBUGGING_FEATURES_ENABLED__REMOVE_AT_GMC"


class VirtualDevice:
    """A device with its services running, from entering the context to leaving it.

    `build` is the build directory of the daemon. `files` puts further files into the root or replaces
    programs (see `rootfs.fill`).
    The keys "prod" and "dev" are installed, and the address of the metadata document is configured.
    `enter` gives the prefix that starts a program inside the root, `fill` makes the root.
    Only a process that `device.alone` has started can have one.
    """

    def __init__(self, build: str | Path, files: Mapping[str, Path] | None = None,
                 enter: Callable[[Path], list[str]] = enter,
                 fill: Callable[[Path, Path, Mapping[str, Path]], None] = fill):
        self._build = build = Path(build).resolve()
        self._files = files or {}
        self._launcher = architecture(build / "zeloinstall").launcher
        self._enter = enter
        self._fill = fill
        self._numbers = itertools.count(1)
        self.keys = Keys(build / "device" / "keys")

    def __enter__(self) -> "VirtualDevice":
        with ExitStack() as stack:
            self._base = stack.enter_context(alone.directory())
            self.root = self._base / "root"
            self.entering = self._enter(self.root)
            self._fill(self.root, self._build, self._files)
            self._configure()
            self._try_a_program()
            self.syslog = SyslogReceiver(self.path("/dev/log"))
            stack.callback(self.syslog.close)
            self.server = Server()
            stack.callback(self.server.close)
            self.bus = start_bus(self._base, self.root)
            stack.callback(self.bus.stop)
            self.transfers = TransferService(self._base, self.entering)
            stack.callback(lambda: self.transfers.stop())
            self.shell = Shell(self._base, self.root, self.entering)
            stack.callback(self.shell.stop)
            self.set_pref("url.zelo.installer.metadata", f"{self.url(DOCUMENT)}?version=%s&package=%s")
            self._runs = stack.enter_context(ExitStack())
            self._stack = stack.pop_all()
        return self

    def __exit__(self, *exception: object) -> None:
        self._stack.close()

    def path(self, path: str) -> Path:
        """Where an absolute path of the device is on this machine."""
        return inside(self.root, path)

    def url(self, path: str) -> str:
        """The address of a path of the download server, as the device sees it."""
        return f"https://{HOST}:{self.server.port}{path}"

    def write(self, path: str, content: str | bytes | Path, mode: int = 0o644) -> None:
        """Puts a file into the root in place of what may be there."""
        target = self.path(path)
        target.unlink(missing_ok=True)
        if isinstance(content, Path):
            shutil.copyfile(content, target)
        else:
            target.write_bytes(os.fsencode(content) if isinstance(content, str) else content)
        target.chmod(mode)

    def set_pref(self, key: str, value: str | None) -> None:
        """Sets a value of the configuration store; None removes it."""
        path = f"/var/lib/prefbox/{key}"
        if value is None:
            self.path(path).unlink(missing_ok=True)
        else:
            self.write(path, value)

    def install_key(self, path: str, name: str) -> None:
        """Installs the public half of the key pair `name`, e.g. under /etc/zelo/pubkeyprod.pem."""
        self.write(path, self.keys.public(name))

    def marker(self, present: bool) -> None:
        """Whether the debugging features are enabled."""
        if present:
            self.write(MARKER, "")
        else:
            self.path(MARKER).unlink(missing_ok=True)

    def make_bundle(self, key: str = "prod", script: str = SUCCEEDING_SCRIPT,
                    files: Mapping[str, bytes] | None = None) -> Bundle:
        """A bundle signed with the key pair `key`; for the rest see `bundles.make_bundle`."""
        return make_bundle(self.keys.private(key), self.url(ARCHIVE), script, files)

    def sign(self, archive: bytes, key: str = "prod") -> Bundle:
        """A bundle whose archive is just these bytes."""
        return sign(self.keys.private(key), self.url(ARCHIVE), archive)

    def publish(self, bundle: Bundle) -> None:
        self.published = bundle
        self.server.answer(DOCUMENT, Content(bundle.document))
        self.server.answer(ARCHIVE, Content(bundle.archive))

    def lock_holder(self) -> int | None:
        """The process that holds the lock of the daemon's single instance."""
        try:
            with open(self.path(PID_FILE), "rb+") as file:
                wanted = struct.pack("hhqqi", fcntl.F_WRLCK, os.SEEK_SET, 0, 0, 0)
                kind, _, _, _, pid = struct.unpack("hhqqi", fcntl.fcntl(file, fcntl.F_GETLK, wanted))
        except FileNotFoundError:
            return None
        return None if kind == fcntl.F_UNLCK else pid

    def lock_was_released(self) -> bool:
        """Whether its last holder has given it back, which empties the file, or has just ended."""
        return self.path(PID_FILE).read_bytes() == b""

    def restart_transfers(self) -> None:
        self.transfers.stop()
        self.transfers = TransferService(self._base, self.entering)

    def mount_tmpfs(self, path: str, size: int) -> None:
        """Covers a directory with an empty file system of so many bytes; only where `alone.confined`."""
        alone.mount("-t", "tmpfs", "-o", f"size={size},mode=1777", "tmpfs", self.path(path))

    def defer_transfers(self, code: int) -> None:
        """Makes the transfer service put off all transfers with a deferred code; 0 lets them go on."""
        if not set_property(self.root, TRANSFER_SERVICE, "deferred", f"int32:{code}"):
            raise RuntimeError("the transfer service cannot be told")

    def start(self, *, prefix: Sequence[str] = (), env: Mapping[str, str] | None = None,
              **popen: Any) -> Run:
        """Starts the daemon, with an empty environment unless told otherwise.

        It leads a session, so that a script that signals its process group reaches nothing else. `prefix`
        starts it from outside the root, e.g. setarch. Further arguments go to `subprocess.Popen`.
        """
        output = self._base / f"output.{next(self._numbers)}"
        command = [*prefix, *self.entering, *self._launcher, DAEMON]
        with open(output, "wb") as sink:
            popen = {"stdin": subprocess.DEVNULL, "stdout": sink, "stderr": sink,
                     "start_new_session": True, **popen}
            process = subprocess.Popen(command, env=dict(env or {}), cwd=self._base, **popen)
        run = Run(process, output, self.syslog)
        self._runs.callback(run.kill)
        return run

    def popen(self, command: Sequence[str], **popen: Any) -> subprocess.Popen[bytes]:
        """Starts any program inside the root; the caller waits for its end."""
        popen = {"env": {}, "cwd": self._base, "stdin": subprocess.DEVNULL, **popen}
        return subprocess.Popen([*self.entering, *command], **popen)

    def log_lines(self) -> list[str]:
        """The texts of all that was logged on the device."""
        return [line.text for line in self.syslog.lines()]

    def shell_lines(self) -> list[str]:
        """What the UI shell has shown until now."""
        return self.shell.lines()

    def work_directories(self) -> list[Path]:
        """What the starts of the daemon have left under /tmp."""
        return sorted(self.path("/tmp").glob("zeloinstall.*"))

    def _configure(self) -> None:
        make_null_device(self.path("/dev/null"))
        if os.environ.get("ZELO_DEVICE_PROC"):  # which the sanitizers read
            alone.mount("--bind", "/proc", self.path("/proc"))
        self.write("/etc/device-info", DEVICE_INFO)
        self.write(AUTHORITIES, authority(AUTHORITY).cert_pem.bytes())
        for name in ("prod", "dev"):
            self.install_key(f"/etc/zelo/pubkey{name}.pem", name)

    def _try_a_program(self) -> None:
        trial = [*self.entering, "/bin/sh", "-c", ":"]
        done = subprocess.run(trial, stdin=subprocess.DEVNULL, capture_output=True, text=True, check=False)
        if done.returncode != 0:
            raise RuntimeError(f"no program runs on the virtual device: {done.stderr.strip()}\n"
                               "It needs root or unprivileged user namespaces, programs must be allowed to run "
                               f"under {self._base.parent}, and a system of your own must have /bin/sh with its "
                               "libraries.")
