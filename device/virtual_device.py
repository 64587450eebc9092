"""The virtual device: everything of it in one context manager.

    with VirtualDevice(Path("build/release")) as device:
        device.publish(device.make_bundle())
        run = device.start()
        print(run.wait(), run.log_lines(), device.shell_lines())
"""

import itertools
import os
import subprocess
from collections.abc import Callable, Mapping, Sequence
from contextlib import ExitStack, closing
from pathlib import Path
from typing import Any

from device import alone
from device.architecture import architecture
from device.bundles import SUCCEEDING_SCRIPT, Bundle, make_bundle, sign
from device.https_server import Answer, Server, authority
from device.keys import Keys
from device.rootfs import DAEMON, TRANSFER_SERVICE, UI_SHELL, fill, inside, make_null_device
from device.run import Run
from device.services import BUS_SOCKET, Service, bus_command, enter, set_property
from device.syslog_receiver import SyslogReceiver

ARCHIVE = "/zelo_installer.tar.gz"
DOCUMENT = "/zelo_installer_meta.json"
DEVICE_INFO = "[device]\nsoftware_version=123456789012\nsoftware_package_name=base image/1\n"
PID_FILE = "/var/run/zeloinstall.pid"
MARKER = "/PRE_GM_DEBUGGING_FEATURES_ENABLED__REMOVE_AT_GMC"


class VirtualDevice:
    """A device with its services running, from construction to leaving the context.

    `build` is the build directory of the daemon. `files` puts further files into the root or replaces
    programs (see `rootfs.fill`).
    The keys "prod" and "dev" are installed, and the address of the metadata document is configured.
    `enter` gives the prefix that starts a program inside the root, `fill` makes the root.
    Only a process that `device.alone` has started can have one.
    """

    def __init__(self, build: Path, files: Mapping[str, Path] | None = None,
                 enter: Callable[[Path], list[str]] = enter,
                 fill: Callable[[Path, Path, Mapping[str, Path]], None] = fill):
        build = build.resolve()
        with ExitStack() as stack:
            self._launcher = architecture(build / "zeloinstall").launcher
            self._numbers = itertools.count(1)
            self._base = stack.enter_context(alone.directory())
            self.keys = Keys(alone.place() / "keys")
            self.root = self._base / "root"
            self.entering = enter(self.root)
            fill(self.root, build, files or {})
            self._configure()
            self._try_a_program()
            self.syslog = stack.enter_context(closing(SyslogReceiver(self.path("/dev/log"))))
            self.server = stack.enter_context(closing(Server()))
            self.published = Bundle(b"", b"")
            # Outside the root; programs inside reach its socket.
            bus = Service(bus_command(self.root / BUS_SOCKET), self._base / "bus.output", "unix:path=")
            self.transfers = self._service(TRANSFER_SERVICE)
            self.shell = self._service(UI_SHELL)
            for service in bus, self.transfers, self.shell:
                stack.callback(service.stop)
                service.start()
            self.set_pref("url.zelo.installer.metadata", f"{self.url(DOCUMENT)}?version=%s&package=%s")
            self._runs = stack.enter_context(ExitStack())
            self._stack = stack.pop_all()

    def __enter__(self) -> "VirtualDevice":
        return self

    def __exit__(self, *exception: object) -> None:
        self._stack.close()

    def path(self, path: str) -> Path:
        """Where an absolute path of the device is on this machine."""
        return inside(self.root, path)

    def url(self, path: str) -> str:
        """The address of a path of the download server, as the device sees it."""
        return self.server.url(path)

    def write(self, path: str, content: str | bytes, mode: int = 0o644) -> None:
        """Puts a file into the root in place of what may be there."""
        target = self.path(path)
        target.unlink(missing_ok=True)
        target.write_bytes(os.fsencode(content))
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
        self.write(path, self.keys.public(name).read_bytes())

    def make_bundle(self, key: str = "prod", script: str = SUCCEEDING_SCRIPT,
                    files: Mapping[str, bytes] | None = None) -> Bundle:
        """A bundle signed with the key pair `key`; for the rest see `bundles.make_bundle`."""
        return make_bundle(self.keys.private(key), self.url(ARCHIVE), script, files or {})

    def sign(self, archive: bytes, key: str = "prod") -> Bundle:
        """A bundle whose archive is just these bytes."""
        return sign(self.keys.private(key), self.url(ARCHIVE), archive)

    def publish(self, bundle: Bundle) -> None:
        self.published = bundle
        self.server.answer(DOCUMENT, Answer(bundle.document))
        self.server.answer(ARCHIVE, Answer(bundle.archive))

    def lock_holder(self) -> int | None:
        """The start of the daemon that has taken the lock of its single instance and not given it back."""
        file = self.path(PID_FILE)
        pid = file.read_text() if file.exists() else ""
        return int(pid) if pid else None

    def mount_tmpfs(self, path: str, size: int) -> None:
        """Covers a directory with an empty file system of so many bytes; only where `alone.confined`."""
        alone.mount("-t", "tmpfs", "-o", f"size={size},mode=1777", "tmpfs", self.path(path))

    def defer_transfers(self, code: int) -> None:
        """Makes the transfer service put off all transfers with a deferred code; 0 lets them go on."""
        if not set_property(self.root, "com.qorvex.transfer", "deferred", f"int32:{code}"):
            raise RuntimeError("the transfer service cannot be told")

    def popen(self, command: Sequence[str], prefix: Sequence[str] = (),
              **popen: Any) -> subprocess.Popen[bytes]:
        """Starts any program inside the root, with an empty environment; the caller waits for its end.

        `prefix` starts it from outside the root, e.g. setarch. Further arguments go to `subprocess.Popen`.
        """
        popen = {"env": {}, "cwd": self._base, "stdin": subprocess.DEVNULL, **popen}
        return subprocess.Popen([*prefix, *self.entering, *command], **popen)

    def start(self, *, prefix: Sequence[str] = (), **popen: Any) -> Run:
        """Starts the daemon as `popen` does.

        It leads a session, so that a script that signals its process group reaches nothing else.
        """
        output = self._base / f"output.{next(self._numbers)}"
        with open(output, "wb") as sink:
            popen = {"stdout": sink, "stderr": sink, "start_new_session": True, **popen}
            process = self.popen([*self._launcher, DAEMON], prefix, **popen)
        run = Run(process, output, self.syslog)
        self._runs.callback(run.kill)
        return run

    def log_lines(self) -> list[str]:
        """The texts of all that was logged on the device."""
        return [line.text for line in self.syslog.lines()]

    def shell_lines(self) -> list[str]:
        """What the UI shell has shown for everything that was sent to it until now."""
        # The bus keeps the order: when this is answered, everything sent before has been shown.
        set_property(self.root, "com.qorvex.vestrel", "load", "string:barrier")
        own = ("vestrel: ready", "vestrel: load = barrier")
        return [line for line in self.shell.lines() if line not in own]

    def work_directories(self) -> list[Path]:
        """What the starts of the daemon have left under /tmp."""
        return sorted(self.path("/tmp").glob("zeloinstall.*"))

    def _service(self, program: str) -> Service:
        """One that runs inside the root, and says its name when it is ready."""
        name = os.path.basename(program)
        return Service([*self.entering, program], self._base / f"{name}.output", f"{name}: ready")

    def _configure(self) -> None:
        make_null_device(self.path("/dev/null"))
        if os.environ.get("ZELO_DEVICE_PROC"):  # which the sanitizers read
            alone.mount("--bind", "/proc", self.path("/proc"))
        self.write("/etc/device-info", DEVICE_INFO)
        self.write("/etc/ssl/certs/ca-certificates.crt", authority().cert_pem.bytes())
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
