"""A device that systemd runs, ready for the packages of the daemon and of the tools for authors."""

import json
import shutil
from collections.abc import Iterator
from contextlib import closing, contextmanager
from itertools import chain
from pathlib import Path

from booted_root import BootedRoot
from device.gate import until
from device.https_server import AUTHORITY, HOST, Content, Server, authority
from device.keys import Keys
from device.services import BUS_CONFIG
from device.virtual_device import ARCHIVE, DOCUMENT

ROOT = Path(__file__).resolve().parents[2]
SERVICES = {"kbus": "/usr/bin/dbus-daemon --config-file=/etc/kbus.conf --nofork --nopidfile",
            "transfer-service": "/usr/sbin/transfer-service", "vestrel": "/usr/bin/vestrel"}
SETTINGS = "/var/lib/prefbox/zelo.installer.download"
AUTHOR = "/run/author"


class SystemdDevice(BootedRoot):
    def __init__(self, root: Path, server: Server):
        super().__init__(root)
        self.server = server
        self.url = f"https://{HOST}:{server.port}"

    def prepare(self, build: Path, keys: Keys) -> None:
        for place, directory in (("/usr/sbin/transfer-service", build / "standin"),
                                 ("/usr/bin/vestrel", build / "standin"),
                                 ("/usr/bin/kbus-set-prop", ROOT / "standin" / "tools"),
                                 ("/usr/bin/kbus-send-event", ROOT / "standin" / "tools")):
            shutil.copy(directory / Path(place).name, self.path(place))
        for path, text in {
            "/etc/hosts": f"127.0.0.1 {HOST}\n", "/etc/kbus.conf": BUS_CONFIG.format(socket="/run/kbus.sock"),
            "/etc/device-info": "[device]\nsoftware_version=1\nsoftware_package_name=base\n",
            "/etc/ssl/certs/ca-certificates.crt": authority(AUTHORITY).cert_pem.bytes().decode(),
            "/etc/zelo/pubkeyprod.pem": keys.public("prod").read_text(),
            f"{AUTHOR}/key": keys.private("prod").read_text(),
            "/var/lib/prefbox/url.zelo.installer.metadata": f"{self.url}{DOCUMENT}?%s&%s",
            f"{SETTINGS}.retries": "0", f"{SETTINGS}.timeout.seconds": "900",
        }.items():
            self.write(path, text)
        for name, command in SERVICES.items():
            self.write(f"/etc/systemd/system/{name}.service", f"[Service]\nExecStart={command}\n")
            self.run("systemctl", "start", name)
            until(lambda: self.path("/run/kbus.sock").exists() if name == "kbus"
                  else "ready" in self.run("journalctl", f"--unit={name}"))

    def write(self, path: str, text: str) -> None:
        self.path(path).parent.mkdir(parents=True, exist_ok=True)
        self.path(path).write_text(text)

    def publish(self, script: str) -> None:
        """Makes and checks the bundle with the tools that are installed on the device."""
        self.write(f"{AUTHOR}/bundle/run.sh", f"#!/bin/sh\n{script}\n")
        self.path(f"{AUTHOR}/bundle/run.sh").chmod(0o755)
        self.run("zelo-make-bundle", f"--key={AUTHOR}/key", f"--url={self.url}{ARCHIVE}",
                 f"--output={AUTHOR}", f"{AUTHOR}/bundle")
        self.run("zelo-check-bundle", AUTHOR + DOCUMENT, AUTHOR + ARCHIVE, "/etc/zelo/pubkeyprod.pem")
        for path in (DOCUMENT, ARCHIVE):
            self.server.answer(path, Content(self.path(AUTHOR + path).read_bytes()))

    def start(self, *options: str, status: int = 0) -> None:
        self.run("systemctl", "start", *options, "zeloinstall", status=status)

    def state(self, *properties: str) -> list[str]:
        """What systemd makes of the daemon."""
        return [self.run("systemctl", "show", "--value", f"--property={name}", "zeloinstall").strip()
                for name in properties or ("ActiveState", "Result")]

    def log(self) -> list[tuple[int, str]]:
        """Priorities and texts of what the daemon has logged since the last time."""
        self.run("journalctl", "--sync")
        lines = self.run("journalctl", "--identifier=zeloinstall", "--output=json",
                         "--cursor-file=/run/cursor", status=None)
        return [(int(line["PRIORITY"]), line["MESSAGE"]) for line in map(json.loads, lines.splitlines())]

    def files(self) -> set[str]:
        """Every path but those in memory and those that keep record of what was done."""
        records = (f"-not -path /var/{path}/*".split() for path in ("lib/dpkg", "log", "cache"))
        return set(self.run("find", "/", "-xdev", *chain(*records)).splitlines())


@contextmanager
def running_device(root: Path, build: Path) -> Iterator[SystemdDevice]:
    """`root` is a directory that ci/check-packages has made. Raises `CannotBoot`."""
    keys = Keys(build / "device" / "keys")
    with closing(Server()) as server, SystemdDevice(root, server) as device:
        device.prepare(build, keys)
        yield device
