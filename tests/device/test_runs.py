"""Whole runs of the daemon: what changes on the device, what the log, the status and the UI shell say."""

import base64
import json
import time
from collections.abc import Callable
from dataclasses import dataclass, field
from pathlib import Path

import pytest

from device.demo import RETRIES, SCENARIOS, TEMPLATE, TIMEOUT, faults, staged
from device.https_server import Content, Drop, Redirect, Stall, Status
from device.virtual_device import ARCHIVE, DOCUMENT, MARKER, VirtualDevice

from changes import (ANOTHER, AUTHORITIES, BUNDLE_FAILED, DEV_REFUSED, END, LOST, METADATA_FAILED, NO_COMMAND,
                     NOT_TAKEN, PROD, REFUSED, SEND_EVENT, SET_PROP, STAGES, answer, archive, both, bundle_address,
                     defaulted, directory, document, ended, key_file, lines_of, other_authority, reported,
                     script, setting, tool)


@pytest.mark.parametrize("scenario", SCENARIOS, ids=lambda scenario: scenario.title)
def test_demo(build: Path, scenario) -> None:
    with staged(build, scenario) as device:
        assert faults(scenario, device, scenario.play(device)) == []


@dataclass(frozen=True)
class Row:
    name: str
    change: Callable[[VirtualDevice], object]
    lines: list[str]
    shown: list[str] = field(default_factory=list)
    status: int = 0


def failing(name: str, change, stages: int, message: str, code: str, *warnings: str) -> Row:
    """A run that begins this many stages and reports the code."""
    return Row(name, change, [*STAGES[:stages], *warnings, reported(message, code), END],
               ["load = zelo", f"showError {code}"])


def untold(name: str, change, shown: list[str]) -> Row:
    """A run that has nobody to report to: nothing is there to download, and `change` breaks the telling."""
    lines = [STAGES[0], METADATA_FAILED + LOST, reported(LOST, "02"), ended(NO_COMMAND)]
    return Row(name, both(setting(TEMPLATE, "https://bundles.zelo.example:1/%s/%s"), change), lines, shown, 1)


def truncated_archive(d: VirtualDevice) -> None:
    d.publish(d.sign(d.make_bundle(files={"data": bytes(range(256)) * 9}).archive[:-40]))


ROWS = [
    Row("no bus", lambda d: d.path("/run/kbus.sock").unlink(), [ended("Failed to initialize kbus handle")],
        status=1),
    Row("no /tmp", lambda d: d.path("/tmp").rmdir(), [ended("unable to create temp directory. errno 2")],
        status=1),
    *[Row(f"{key} {value}", setting(key, value), [STAGES[0], ended("stoi")], status=1)
      for key, value in ((RETRIES, "many"), (TIMEOUT, "99999999999"))],

    Row("longest time limit", setting(TIMEOUT, "2147483647"), [*STAGES, END]),

    Row("no transfer service", lambda d: d.transfers.stop(),
        ["E def:TransferServiceWrapper:Transfer Service initialization failed:", STAGES[0],
         METADATA_FAILED + NOT_TAKEN, reported(NOT_TAKEN, "02"), END], ["load = zelo", "showError 02"]),
    failing("deferred", lambda d: d.defer_transfers(5), 1, LOST, "02", METADATA_FAILED + LOST),

    failing("no template", setting(TEMPLATE, None), 1, "key does not exist", "99"),
    failing("template with %d", setting(TEMPLATE, "https://bundles.zelo.example/%d"), 1,
            "invalid metadata url template", "99"),
    failing("no software version", lambda d: d.path("/etc/device-info").unlink(), 1,
            "could not get software version", "99"),
    failing("no package name", lambda d: d.write("/etc/device-info", "[device]\nsoftware_version=1\n"), 1,
            "could not get software package name", "99"),
    failing("document missing", answer(DOCUMENT, Status(404)), 1, LOST, "02", METADATA_FAILED + LOST),
    failing("document too late", both(setting(TIMEOUT, "1"), answer(DOCUMENT, Stall(b"{"))), 1, LOST, "02",
            METADATA_FAILED + LOST),
    failing("time limit passed at once", setting(TIMEOUT, "-1"), 1, LOST, "02", METADATA_FAILED + LOST),
    failing("unknown authority", other_authority, 1, LOST, "02", METADATA_FAILED + LOST),
    failing("no JSON", answer(DOCUMENT, Content(b"hello")), 1, "invalid json hello", "02",
            METADATA_FAILED + "invalid json hello"),
    failing("empty document", answer(DOCUMENT, Content(b"")), 1, "invalid json ", "02",
            METADATA_FAILED + "invalid json "),
    failing("no url, twice", both(document(signature="AA=="), setting(RETRIES, "1")), 1, "key url not found",
            "02", *[METADATA_FAILED + "key url not found"] * 2),
    failing("no signature", document(url="https://a/"), 1, "key signature not found", "02",
            METADATA_FAILED + "key signature not found"),
    *[failing(url, both(bundle_address(url), setting(RETRIES, "3")), 1, REFUSED, "02") for url in (
        "http://bundles.zelo.example/b", "https://LocalHost:8/b", "https://127.0.0.1/b", "no address")],

    failing("bundle missing", answer(ARCHIVE, Status(404)), 2, LOST, "02", BUNDLE_FAILED + LOST),
    failing("bundle cut short", answer(ARCHIVE, Drop(b"abc")), 2, LOST, "02", BUNDLE_FAILED + LOST),
    failing("bundle of unknown length cut short", answer(ARCHIVE, Drop(b"abc", with_length=False)), 2, LOST,
            "02", BUNDLE_FAILED + LOST),
    *[failing(f"bundle with status {code}", answer(ARCHIVE, Status(code)), 2, LOST, "02",
              BUNDLE_FAILED + LOST) for code in (202, 204, 206)],
    failing("redirect to http", answer(ARCHIVE, Redirect("http://bundles.zelo.example/b")), 2, LOST, "02",
            BUNDLE_FAILED + LOST),

    failing("no base64", lambda d: document(url=d.url(ARCHIVE), signature="!")(d), 3, NO_COMMAND, "00"),
    failing("no production key", key_file(PROD, None), 3, NO_COMMAND, "00"),
    failing("foreign production key", key_file(PROD, "stranger"), 3, NO_COMMAND, "00"),
    failing("no openssl", tool("/usr/bin/openssl", None), 3, NO_COMMAND, "00"),
    failing("no decoder", tool("/bin/base64", None), 3, NO_COMMAND, "00"),
    failing("no line feed", tool("/usr/bin/openssl", "printf 'Verified OK'"), 3, "Verified OK", "00"),
    failing("both keys refuse", both(lambda d: d.marker(True), key_file(PROD, "stranger")), 3, NO_COMMAND,
            "00", DEV_REFUSED + NO_COMMAND),
    Row("production key accepts behind development key", lambda d: d.path(MARKER).mkdir(),
        [*STAGES[:3], DEV_REFUSED + NO_COMMAND, *STAGES[3:], END]),

    failing("no tar", tool("/bin/tar", None), 4, NO_COMMAND, "01"),
    failing("damaged archive", truncated_archive, 4, NO_COMMAND, "01"),
    failing("no run.sh at the top", archive(("d/run.sh", 0o755, b"#!/bin/sh\n")), 5, NO_COMMAND, "03"),
    failing("run.sh not executable", archive(("run.sh", 0o644, b"#!/bin/sh\n")), 5, NO_COMMAND, "03"),
    failing("no interpreter", script("#!/bin/missing\n"), 5, NO_COMMAND, "03"),
    failing("run.sh ends with status 255", script("#!/bin/sh\necho output; exit 255\n"), 5, NO_COMMAND, "03"),
    Row("run.sh ended by a signal", script("#!/bin/sh\nkill -9 $$\n"), [*STAGES, END]),

    untold("no property tool", tool(SET_PROP, None), []),
    untold("property tool fails", tool(SET_PROP, "exit 1"), []),
    untold("no UI shell", lambda d: d.shell.stop(), []),
    untold("event tool fails", tool(SEND_EVENT, "exit 1"), ["load = zelo"]),
    Row("property tool ended by a signal", both(tool(SET_PROP, "kill -9 $$"), setting(TEMPLATE, None)),
        [STAGES[0], reported("key does not exist", "99"), END], ["showError 99"]),

    *[Row(f"{key} a directory", directory(f"/var/lib/prefbox/{key}"),
          [STAGES[0], defaulted(key), STAGES[1], defaulted(key), *STAGES[2:], END])
      for key in (RETRIES, TIMEOUT)],
    *[failing(f"{path} a directory", directory(path), *failure) for path, failure in {
        f"/var/lib/prefbox/{TEMPLATE}": (1, "key does not exist", "99"),
        "/etc/device-info": (1, "could not get software version", "99"),
        "/etc/hosts": (1, LOST, "02", METADATA_FAILED + LOST),
        AUTHORITIES: (1, LOST, "02", METADATA_FAILED + LOST),
        PROD: (3, NO_COMMAND, "00"), "/bin/base64": (3, NO_COMMAND, "00"),
        "/usr/bin/openssl": (3, NO_COMMAND, "00"), "/bin/tar": (4, NO_COMMAND, "01")}.items()],
    failing("run.sh a directory", archive(("run.sh/x", 0o755, b"")), 5, NO_COMMAND, "03"),
    Row("pid file a directory", directory("/var/run/zeloinstall.pid"), [
        "singleton: unable to open /var/run/zeloinstall.pid: Is a directory", ANOTHER],
        status=1),
]


@pytest.mark.parametrize("row", ROWS, ids=lambda row: row.name)
def test_row(device: VirtualDevice, row: Row) -> None:
    row.change(device)
    run = device.start()
    assert run.wait() == row.status, run.output()
    assert lines_of(device) == row.lines
    assert [line.split(": ")[1] for line in device.shell_lines()] == row.shown
    assert not device.path("/tmp/installed").exists() or STAGES[-1] in row.lines


def test_defaults_pauses_and_redirects(device: VirtualDevice) -> None:
    bundle = device.make_bundle()
    device.server.answer("/elsewhere", Content(bundle.archive))
    device.server.answer(ARCHIVE, Status(500), Drop(), Status(404), Redirect("/elsewhere"))
    device.set_pref(RETRIES, None)
    device.set_pref(TIMEOUT, None)
    start = time.monotonic()
    assert device.start().wait() == 0
    assert 6 <= time.monotonic() - start < 12  # pauses of 1, 2 and 3 seconds, and no time limit
    defaults = [defaulted(RETRIES), defaulted(TIMEOUT)]
    assert lines_of(device) == [STAGES[0], *defaults, STAGES[1], *defaults, *[BUNDLE_FAILED + LOST] * 3,
                                *STAGES[2:], END]


def test_transfer_lines(device: VirtualDevice) -> None:
    device.server.answer(ARCHIVE, Status(404))
    assert device.start().wait() == 0
    assert [line for line in device.log_lines() if "TransferWrapper" in line] == [
        "I TransferWrapper:onProgress:status=downloadCompleted:",
        "W TransferWrapper:onProgress:transferFailed:error_code=404"]


def test_what_a_good_run_asks_and_leaves(device: VirtualDevice) -> None:
    run = device.start()
    assert run.wait() == 0 and device.path("/tmp/installed").read_text() == "installed\n"
    assert device.server.requests == [f"{DOCUMENT}?version=123456789012&package=base%20image%2F1", ARCHIVE]
    [work] = device.work_directories()
    assert work.stat().st_mode & 0o7777 == 0o700
    assert {file.name for file in work.iterdir()} == {
        "run.sh", "zelo_installer_meta.json", "zelo_installer.tar.gz", "zelo_installer.tar.gz.sig",
        "zelo_installer.tar.gz.sig.sha256"}
    signature = json.loads((work / "zelo_installer_meta.json").read_text())["signature"]
    assert (work / "zelo_installer.tar.gz.sig").read_text() == signature
    assert (work / "zelo_installer.tar.gz.sig.sha256").read_bytes() == base64.b64decode(signature)
    heads = {(line.ident, line.pid, line.priority) for line in device.syslog.lines()}
    assert heads == {("zeloinstall", run.pid, 133)}
