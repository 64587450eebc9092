"""Nobody comes between a check and what is used afterwards."""

import errno
import subprocess
import sys

import pytest

from device.demo import RETRIES
from device.entering import AS_ROOT
from device.gate import Gate
from device.https_server import Status
from device.virtual_device import DOCUMENT, VirtualDevice

from changes import LOST, reported

STRANGER = 65534
ATTACKS = """
import os, sys
work = sys.argv[1]
archive = f"{work}/zelo_installer.tar.gz"
for attack in (lambda: os.listdir(work), lambda: os.chmod(work, 0o777),
               lambda: os.rename(work, f"{work}.old"), lambda: open(archive, "ab"),
               lambda: os.symlink("/", f"{work}/new"), lambda: os.unlink(archive)):
    try:
        attack()
        print("done")
    except OSError as error:
        print(error.errno)
"""


def attack(work: str) -> list[str]:
    return subprocess.run([sys.executable, "-c", ATTACKS, work], user=STRANGER, group=STRANGER, cwd="/",
                          extra_groups=[], text=True, capture_output=True, check=True).stdout.split()


@pytest.mark.skipif(not AS_ROOT, reason="only root can be another user")
def test_verified_archive_cannot_be_replaced(device: VirtualDevice, gate: Gate) -> None:
    device.admit(STRANGER)
    gate.hold("/bin/tar")
    run = device.start()
    gate.wait()
    [work] = device.work_directories()
    no, not_owner = str(errno.EACCES), str(errno.EPERM)
    assert attack(str(work)) == [no, not_owner, not_owner, no, no, no]
    gate.open()
    assert run.wait() == 0 and device.path("/tmp/installed").exists()
    work.chmod(0o777)
    # Or the attacks prove nothing.
    assert attack(str(work)) == ["done", not_owner, not_owner, no, "done", "done"]


@pytest.mark.parametrize("planted", ["zelo_installer_meta.json", "zelo_installer.tar.gz"])
def test_planted_link_is_not_followed(device: VirtualDevice, planted: str) -> None:
    """Planted in the pause behind a first attempt that has failed."""
    device.server.answer(DOCUMENT, Status(503), device.server.answer_for(DOCUMENT))
    device.set_pref(RETRIES, "1")
    device.write("/run/precious", "precious")
    run = device.start()
    run.wait_for_line("download failed")
    link = device.work_directories()[0] / planted
    link.unlink(missing_ok=True)
    link.symlink_to("/run/precious")
    assert run.wait() == 0 and reported(LOST, "02") in run.log_lines()
    assert device.path("/run/precious").read_text() == "precious"
