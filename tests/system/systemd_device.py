"""A device that systemd runs, ready for the packages of the daemon and of the tools for authors."""

import json
import shutil
from pathlib import Path

from booted_root import BootedRoot
from device import until
from device.https_server import Answer, Server, authority
from device.rootfs import TRANSFER_SERVICE, UI_SHELL, device_programs
from device.services import bus_command
from device.virtual_device import ARCHIVE, DOCUMENT

SETTINGS = "/var/lib/prefbox/zelo.installer.download"
AUTHOR = "/run/author"


class SystemdDevice(BootedRoot):
    """`root` is a directory that ci/check-packages has made."""

    def __init__(self, root: Path, server: Server):
        super().__init__(root)
        self.server = server

    def prepare(self, build: Path) -> None:
        for path in TRANSFER_SERVICE, UI_SHELL, "/usr/bin/kbus-set-prop", "/usr/bin/kbus-send-event":
            shutil.copy(device_programs(build)[path], self.path(path))
        for path, text in {
            "/etc/device-info": "[device]\nsoftware_version=1\nsoftware_package_name=base\n",
            "/etc/ssl/certs/ca-certificates.crt": authority().cert_pem.bytes().decode(),
            "/var/lib/prefbox/url.zelo.installer.metadata": f"{self.server.url(DOCUMENT)}?%s&%s",
            f"{SETTINGS}.retries": "0", f"{SETTINGS}.timeout.seconds": "900",
        }.items():
            self.write(path, text)
        self.run("mkdir", AUTHOR, "/etc/zelo")
        self.run("openssl", "genpkey", "-algorithm", "RSA", "-out", f"{AUTHOR}/key")
        self.run("openssl", "pkey", "-in", f"{AUTHOR}/key", "-pubout", "-out", "/etc/zelo/pubkeyprod.pem")
        self.run("systemd-run", *bus_command(Path("/run/kbus.sock")))
        until(self.path("/run/kbus.sock").exists)
        for name, program in ("transfer-service", TRANSFER_SERVICE), ("vestrel", UI_SHELL):
            self.run("systemd-run", f"--unit={name}", program)
            until(lambda: "ready" in self.run("journalctl", f"--unit={name}"))

    def write(self, path: str, text: str) -> None:
        self.path(path).parent.mkdir(parents=True, exist_ok=True)
        self.path(path).write_text(text)

    def publish(self, script: str) -> None:
        """Makes and checks the bundle with the tools that are installed on the device."""
        self.write(f"{AUTHOR}/bundle/run.sh", f"#!/bin/sh\n{script}\n")
        self.path(f"{AUTHOR}/bundle/run.sh").chmod(0o755)
        self.run("zelo-make-bundle", f"--key={AUTHOR}/key", f"--url={self.server.url(ARCHIVE)}",
                 f"--output={AUTHOR}", f"{AUTHOR}/bundle")
        self.run("zelo-check-bundle", AUTHOR + DOCUMENT, AUTHOR + ARCHIVE, "/etc/zelo/pubkeyprod.pem")
        for path in (DOCUMENT, ARCHIVE):
            self.server.answer(path, Answer(self.path(AUTHOR + path).read_bytes()))

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
        records = "-not -path /var/lib/dpkg/* -not -path /var/log/* -not -path /var/cache/*"
        return set(self.run("find", "/", "-xdev", *records.split()).splitlines())
