"""The packages on a device that systemd runs: installed, started, stopped and purged."""

import shutil
import time
from collections.abc import Iterator
from contextlib import closing
from pathlib import Path

import pytest

from device import until
from device.cases import END, STAGES
from device.https_server import Answer, Server
from device.virtual_device import DOCUMENT
from systemd_device import AUTHOR, SystemdDevice

ROOT = Path(__file__).resolve().parents[2]
SLOW_SCRIPT = "touch /tmp/begun; while [ ! -e /tmp/go ]; do sleep 0.1; done; ls $0 && touch /tmp/whole"


@pytest.fixture(scope="module")
def device(build: Path) -> Iterator[SystemdDevice]:
    with closing(Server()) as server, SystemdDevice(ROOT / "build" / "root", server) as device:
        device.prepare(build)
        for package in (build / "packages").glob("*.deb"):
            shutil.copy(package, device.path(AUTHOR))
        before = device.files()
        device.run("sh", "-c", f"dpkg --install {AUTHOR}/*.deb")
        yield device
        device.write("/tmp/go", "")  # purging waits for the script that runs
        device.run("dpkg", "--purge", "zeloinstall", "zelo-bundle-tools")
        assert device.files() == before


def test_units(device: SystemdDevice) -> None:
    assert not device.run("systemd-analyze", "verify", "--man=no", "zeloinstall.service", "zeloinstall.timer")
    device.run("systemctl", "enable", "zeloinstall")
    assert device.run("systemctl", "is-enabled", "zeloinstall.timer") == "enabled\n"


def test_good_attempt_is_in_the_journal(device: SystemdDevice) -> None:
    device.publish("touch /tmp/installed")
    device.log()
    device.start()
    assert device.path("/tmp/installed").exists()
    lines = [line for line in device.log() if "def:" in line[1]]
    assert lines == [(5, line) for line in (*STAGES, END)]


def test_failure_and_crash_look_different(device: SystemdDevice) -> None:
    device.server.answer(DOCUMENT, Answer(status=404))
    device.start()
    assert device.state() == ["inactive", "success"]
    assert (3, "E def:zeloinstall:zeloutils:zelo exception: download failed. code=02") in device.log()
    assert "showError 02" in device.run("journalctl", "--unit=vestrel")

    device.publish("kill -SEGV $PPID")
    device.start(status=1)
    assert device.state("ActiveState") == ["failed"]
    device.run("systemctl", "reset-failed", "zeloinstall")


def test_stop_lets_the_script_end(device: SystemdDevice) -> None:
    device.publish(SLOW_SCRIPT)
    device.start("--no-block")
    until(device.path("/tmp/begun").exists)
    device.run("zeloinstall", status=1)  # a second one, which changes nothing
    tmpfiles = device.path("/usr/lib/tmpfiles.d/zeloinstall.conf")
    tmpfiles.write_text(tmpfiles.read_text().replace("2d", "1s"))
    device.write("/run/tmpfiles.d/tmp.conf", "q /tmp 1777 root root 1s\n")  # as systemd cleans it, but sooner
    time.sleep(1.5)
    device.run("systemd-tmpfiles", "--clean")
    assert not device.path("/tmp/begun").exists()

    device.run("systemctl", "stop", "--no-block", "zeloinstall")
    time.sleep(1)
    assert device.state("ActiveState", "TimeoutStopUSec") == ["deactivating", "15min"]
    device.write("/tmp/go", "")
    until(lambda: device.state() == ["inactive", "success"])
    assert device.path("/tmp/whole").exists()
    time.sleep(1.5)
    for when, left in ("--clean", "zeloinstall.*/*"), ("--remove --boot", "zeloinstall.*"):
        device.run("systemd-tmpfiles", *when.split(), "zeloinstall.conf")
        assert not list(device.path("/tmp").glob(left))
