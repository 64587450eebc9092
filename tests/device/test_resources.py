"""Too little of everything: a run ends in order, with its code or with status 1 where nobody can be told."""

import itertools
import os
import pwd
import resource
from collections import Counter

import pytest

from device.entering import AS_ROOT, mounts_allowed, read_only, tmpfs
from device.run import Run
from device.virtual_device import VirtualDevice

from changes import PROD, STAGES, ended

INSTALLED = "/run/installed"
SCRIPT = f"#!/bin/sh\necho > {INSTALLED}\n"
CODES = {1: {"02", "99"}, 2: {"02", "99"}, 3: {"00"}, 4: {"01"}, 5: {"03"}}  # by the stages that have begun
USER = pwd.getpwnam("games").pw_uid  # the bus wants one that has a name; it has no processes of its own
needs_mounts = pytest.mark.skipif(not mounts_allowed(), reason="no mounts are allowed here")
needs_root = pytest.mark.skipif(not AS_ROOT, reason="only root can be another user")


def code_of(run: Run) -> str | None:
    """What the run has reported to the user, which fits the stage that it came to."""
    lines = run.log_lines()
    codes = [line[-2:] for line in lines if ". code=" in line]
    begun = sum(line in STAGES for line in lines)
    assert len(codes) <= 1 and all(code in CODES[begun] for code in codes), lines
    return codes[0] if codes else None


@needs_mounts
@pytest.mark.parametrize("mount, number", [(read_only("/tmp"), 30), (tmpfs("/tmp", "64k,nr_inodes=1"), 28)])
def test_no_work_directory(device: VirtualDevice, mount: str, number: int) -> None:
    device.restart_transfers([mount])
    run = device.start()
    assert run.wait() == 1
    assert device.log_lines() == [ended(f"unable to create temp directory. errno {number}")]


@needs_mounts
def test_full_tmp(device: VirtualDevice, plain_only: None) -> None:
    """With a page more each time: none for the signature, the archive, its decoded signature, run.sh."""
    device.publish(device.make_bundle(script=SCRIPT))
    for pages, code in enumerate(["02", "02", "00", "01", None], start=1):
        device.restart_transfers([tmpfs("/tmp", str(pages * os.sysconf("SC_PAGE_SIZE")))])
        run = device.start()
        assert (run.wait(), code_of(run)) == (0, code)
        assert device.path(INSTALLED).exists() == (code is None)


@needs_mounts
def test_tar_runs_out_of_space_half_way(device: VirtualDevice) -> None:
    device.publish(device.make_bundle(script=SCRIPT, files={"a": bytes(1 << 20), "b": bytes(1 << 20)}))
    device.restart_transfers([tmpfs("/tmp", "1500k")])
    run = device.start()
    assert (run.wait(), code_of(run)) == (0, "01") and not device.path(INSTALLED).exists()


@needs_root
@pytest.mark.parametrize("path, code", [
    ("/var/lib/prefbox/url.zelo.installer.metadata", "99"), ("/etc/device-info", "99"), (PROD, "00"),
    ("/usr/bin/openssl", "00"), ("/bin/tar", "01"), ("/var/run/zeloinstall.pid", None)])
def test_unreadable(device: VirtualDevice, path: str, code: str | None) -> None:
    device.admit(USER)
    device.restart_transfers(user=USER)
    device.write(path, device.path(path).read_bytes() if device.path(path).exists() else "", 0)
    run = device.start(user=USER)
    assert (run.wait(), code_of(run)) == (1 if code is None else 0, code)
    assert not device.path("/tmp/installed").exists()


@pytest.mark.usefixtures("plain_only")
@pytest.mark.parametrize("kind, limits, user", [
    pytest.param(resource.RLIMIT_NOFILE, range(3, 99), 0, id="descriptors"),
    pytest.param(resource.RLIMIT_AS, range(48 << 20, 1 << 30, 4 << 20), 0, id="memory"),
    pytest.param(resource.RLIMIT_FSIZE, range(0, 9999, 100), 0, id="file size"),
    pytest.param(resource.RLIMIT_NPROC, range(1, 99), USER, id="processes", marks=needs_root),
])
def test_limits(device: VirtualDevice, kind: int, limits: range, user: int) -> None:
    """From next to nothing to more than enough."""
    if user:
        device.admit(user)
        device.restart_transfers(user=user)
    bundles = {key == "prod": device.make_bundle(key, script=SCRIPT) for key in ("prod", "stranger")}
    outcomes: Counter[str | None] = Counter()
    for limit, verifiable in itertools.product(limits, bundles):
        device.publish(bundles[verifiable])
        device.path(INSTALLED).unlink(missing_ok=True)
        before = len(device.work_directories())
        run = device.start(user=user, preexec_fn=lambda: resource.setrlimit(kind, (limit, limit)))
        status, code, installed = run.wait(), code_of(run), device.path(INSTALLED).exists()
        began = len(device.work_directories()) > before  # else the loader may have had too little
        assert status in (0, 1) if began else status != 0, (limit, status, run.log_lines(), run.output())
        assert not installed or verifiable and status == 0
        if status == 0:
            assert installed == (code is None), run.log_lines()
            outcomes[code] += 1
        if outcomes[None] == 4:
            break
    assert outcomes[None] == 4 and len(outcomes) > 1
    told = Counter(line.split()[2].rstrip(":") for line in device.shell_lines() if "showError" in line)
    assert all(told[code] >= count for code, count in outcomes.items() if code is not None), (told, outcomes)
