"""The script that zelo-bundle(5) offers as a model: tried on a device, again, and with cuts in the middle."""

from collections.abc import Iterator
from pathlib import Path

import pytest

from device.bundles import TOOL
from device.virtual_device import VirtualDevice

DOC = TOOL.parents[1] / "doc"
SCRIPT = (DOC / "examples" / "run.sh").read_text()
PROGRAMS = ("cat", "cp", "mkdir", "mv", "sync", "wc")
CONFIGURATION = "/etc/hello/hello.conf"
MARKER = "/var/lib/hello/release"
REBOOTS = "/tmp/reboots"
# Cuts the script off at its sync number N.
CUT = "#!/bin/sh\necho >>/tmp/syncs\n[ $(wc -l </tmp/syncs) != {} ] || kill -KILL $PPID\n"


@pytest.fixture
def device(build: Path, capfd: pytest.CaptureFixture[str]) -> Iterator[VirtualDevice]:
    """A device with an older configuration, for which the model is published."""
    with VirtualDevice(build, {f"/usr/bin/{name}": Path("/usr/bin", name) for name in PROGRAMS}) as device:
        device.path("/etc/hello").mkdir()
        device.write(CONFIGURATION, "old")
        device.write("/usr/bin/systemd-run", f'#!/bin/sh\necho "$*" >>{REBOOTS}\n', 0o755)
        device.publish(device.make_bundle(script=SCRIPT, files={"hello.conf": b"new"}))
        assert capfd.readouterr().err == ""  # no warning
        yield device


def start(device: VirtualDevice) -> str:
    """An attempt; what it says on standard error."""
    run = device.start()
    assert run.wait() == 0
    return run.output()


def test_second_attempt_changes_nothing(device: VirtualDevice) -> None:
    assert start(device) == "installing hello-7\n"
    assert device.path(CONFIGURATION).read_text() == "new"
    before = device.path(CONFIGURATION).stat()
    assert start(device) == ""
    assert device.path(CONFIGURATION).stat() == before
    assert device.path(REBOOTS).read_text() == "--on-active=10 systemctl reboot\n"


@pytest.mark.parametrize("sync, configuration", [(1, "old"), (2, "new"), (3, "new")])
def test_cut_in_the_middle(device: VirtualDevice, sync: int, configuration: str) -> None:
    device.write("/usr/bin/sync", CUT.format(sync), 0o755)
    start(device)
    assert device.path(CONFIGURATION).read_text() == configuration
    assert not device.path(MARKER).exists()
    assert not device.path(REBOOTS).exists()

    start(device)
    assert device.path(CONFIGURATION).read_text() == "new"
    assert device.path(MARKER).read_text() == "hello-7\n"
    assert device.path(REBOOTS).exists()


def test_page_shows_the_model() -> None:
    assert f".Bd -literal\n{SCRIPT}.Ed\n" in (DOC / "zelo-bundle.5").read_text()
