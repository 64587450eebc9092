"""Whole runs of the daemon: what the log, the status and the UI shell say."""

import base64
import json
import os
import time

import pytest

from device.bundles import RECORD
from device.cases import (BUNDLE_FAILED, END, LOST, METADATA_FAILED, RETRIES, STAGES, TIMEOUT, Case,
                          defaulted, ended, own_lines, script, script_runs)
from device.commands import demo
from device.https_server import Answer
from device.run import Run
from device.virtual_device import ARCHIVE, DOCUMENT, PID_FILE, VirtualDevice

from fault_cases import CASES

PASS_TIME = "i=0; while [ $i -lt 300000 ]; do i=$((i + 1)); done"
ALL = [*demo.CASES, *CASES]


@pytest.mark.parametrize("case", ALL, ids=[case.name for case in ALL])
def test_case(device: VirtualDevice, case: Case) -> None:
    case.change(device)
    runs = case.play(device)
    faults = case.faults(device, runs)
    assert not faults, "\n".join([*faults, *(run.output() for run in runs)])


def test_defaults_pauses_and_redirects(device: VirtualDevice) -> None:
    device.server.answer("/elsewhere", Answer(device.published.archive))
    device.server.answer(ARCHIVE, Answer(status=500), Answer(missing=1), Answer(status=404),
                         Answer(status=302, location="/elsewhere"))
    device.set_pref(RETRIES, None)
    device.set_pref(TIMEOUT, None)
    begin = time.monotonic()
    run = device.start()
    assert run.wait() == 0
    assert 6 <= time.monotonic() - begin  # pauses of 1, 2 and 3 seconds
    defaults = [defaulted(RETRIES), defaulted(TIMEOUT)]
    assert own_lines(device) == [STAGES[0], *defaults, STAGES[1], *defaults, *[BUNDLE_FAILED + LOST] * 3,
                                 *STAGES[2:], END]


def test_what_a_good_run_asks_and_leaves(device: VirtualDevice) -> None:
    run = device.start()
    assert run.wait() == 0
    assert device.server.requests == [f"{DOCUMENT}?version=123456789012&package=base%20image%2F1", ARCHIVE]
    [work] = device.work_directories()
    assert work.stat().st_mode & 0o7777 == 0o700
    assert device.path(PID_FILE).stat().st_mode & 0o7777 == 0o600
    assert device.lock_holder() is None
    assert {file.name for file in work.iterdir()} == {
        "run.sh", "zelo_installer_meta.json", "zelo_installer.tar.gz", "zelo_installer.tar.gz.sig",
        "zelo_installer.tar.gz.sig.sha256"}
    signature = json.loads(device.published.document)["signature"]
    assert (work / "zelo_installer.tar.gz.sig").read_text() == signature
    assert (work / "zelo_installer.tar.gz.sig.sha256").read_bytes() == base64.b64decode(signature)
    heads = {(line.ident, line.pid, line.priority) for line in device.syslog.lines()}
    assert heads == {("zeloinstall", run.pid, 133)}


def test_code_of_a_long_line_is_logged(device: VirtualDevice) -> None:
    device.server.answer(DOCUMENT, Answer(b"x" * 300000))
    run = device.start()
    assert run.wait() == 0
    assert [line[-8:] for line in run.log_lines() if "zelo exception" in line] == [" code=02"]


@pytest.mark.usefixtures("confined_only")
def test_full_tmp(device: VirtualDevice, plain_only: None) -> None:
    """With a page more each time: none for the signature, the archive, its decoded signature, run.sh."""
    script("echo >/run/installed")(device)
    for pages, code in enumerate(["02", "02", "00", "01", None], start=1):
        device.mount_tmpfs("/tmp", pages * os.sysconf("SC_PAGE_SIZE"))
        run = device.start()
        assert run.wait() == 0
        assert [line[-2:] for line in run.log_lines() if ". code=" in line] == ([code] if code else []), pages
        assert device.path("/run/installed").exists() == (code is None)


def start_with(memory: int, device: VirtualDevice) -> Run:
    return device.start(prefix=["/usr/bin/prlimit", f"--as={memory}"])


def test_little_memory_is_no_crash(device: VirtualDevice, plain_only: None) -> None:
    statuses = set()
    for memory in range(64 << 20, 112 << 20, 1 << 19):
        before = device.work_directories()
        status = start_with(memory, device).wait()
        if device.work_directories() != before:  # or the loader, or a library's constructor, has ended it
            statuses.add(status)
    assert statuses == {0, 1}


def test_more_than_the_memory_holds(device: VirtualDevice, plain_only: None) -> None:
    memory = 200 << 20
    script(f"(while /bin/base64 /usr/bin/openssl; do :; done); {PASS_TIME}; {RECORD}")(device)
    run = start_with(memory, device)
    assert run.wait() == 1
    assert run.log_lines()[-1] == ended("std::bad_alloc")
    assert script_runs(device) == 1
    device.server.answer(DOCUMENT, Answer(b"x" * (memory // 2)))
    run = start_with(memory, device)
    assert run.wait() == 0
    assert METADATA_FAILED + "invalid json " in run.log_lines()
