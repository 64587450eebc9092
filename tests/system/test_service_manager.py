"""The packages on a device that systemd runs: installed, started, stopped and purged."""

import os
import shutil
import time
from collections.abc import Iterator
from contextlib import ExitStack
from pathlib import Path

import pytest

from booted_root import CannotBoot
from device.cases import END, STAGES
from device.gate import until
from device.https_server import Status
from device.virtual_device import DOCUMENT
from systemd_device import AUTHOR, SystemdDevice, running_device

ROOT = Path(__file__).resolve().parents[2]
BUILD = Path(os.environ.get("ZELO_BUILD_DIR", ROOT / "build" / "release"))
SLOW_SCRIPT = """echo ${0%/*} >/tmp/begun.new; mv /tmp/begun.new /tmp/begun
while [ ! -e /tmp/go ]; do sleep 0.1; done; touch /tmp/whole"""


@pytest.fixture(scope="module")
def device() -> Iterator[SystemdDevice]:
    with ExitStack() as stack:
        try:
            device = stack.enter_context(running_device(ROOT / "build" / "root", BUILD))
        except CannotBoot as reason:
            pytest.skip(str(reason))
        for package in (BUILD / "packages").glob("*.deb"):
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
    device.server.answer(DOCUMENT, Status(404))
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
    running = device.path("/tmp/begun").read_text().strip()
    device.run("zeloinstall", status=1)  # a second one, which changes nothing
    tmpfiles = device.path("/usr/lib/tmpfiles.d/zeloinstall.conf")
    tmpfiles.write_text(tmpfiles.read_text().replace("2d", "1s"))
    device.write("/run/tmpfiles.d/tmp.conf", "q /tmp 1777 root root 1s\n")  # as systemd cleans it, but sooner
    time.sleep(1.5)
    device.run("systemd-tmpfiles", "--clean")
    assert device.path(f"{running}/run.sh").exists()
    assert not device.path("/tmp/begun").exists()
    device.path("/run/tmpfiles.d/tmp.conf").unlink()

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
