"""Whole runs of the daemon: what changes on the device, what the log, the status and the UI shell say."""

import base64
import io
import json
import re
import tarfile
import time
from collections.abc import Callable
from dataclasses import dataclass, field
from pathlib import Path

import pytest

from device.demo import RETRIES, SCENARIOS, TEMPLATE, TIMEOUT, faults, staged
from device.https_server import Content, Drop, Redirect, Stall, Status
from device.virtual_device import ARCHIVE, DOCUMENT, MARKER, VirtualDevice

STAGES = [f"I def:zeloinstall:main:{stage}" for stage in (
    "Downloading metadata", "Downloading bundle", "Validating bundle", "Extracting bundle",
    "Running installer")]
END = "I def:zeloinstall:signum=0:We're going down..."
METADATA_FAILED = "W def:zeloinstall:ZeloInstallerBundleMetadata:metadata download failed due to "
BUNDLE_FAILED = "W def:zeloinstall:ZeloInstallerBundleMetadata:bundle download failed due to "
DEV_REFUSED = "E def:zeloinstall:zeloinstallerbundle:validation failed against dev key due to "
NO_COMMAND = "failed to execute command"
LOST = "download failed"
REFUSED = "http/loopback address not allowed"


def reported(message: str, code: str) -> str:
    return f"E def:zeloinstall:zeloutils:zelo exception: {message}. code={code}"


def lines_of(device: VirtualDevice) -> list[str]:
    """The log without what the transfers and the bus say for themselves."""
    return [line for line in device.log_lines() if not re.match("[IW] TransferWrapper:|kbus: ", line)]


def ended(reason: str) -> str:
    return f"E def:zeloinstall:main:ending with status 1: {reason}"


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


def answer(path: str, *answers):
    return lambda d: d.server.answer(path, *answers)


def document(**members: str):
    return answer(DOCUMENT, Content(json.dumps(members).encode()))


def bundle_address(url: str):
    return lambda d: d.publish(d.make_bundle().with_url(url))


def script(text: str):
    return lambda d: d.publish(d.make_bundle(script=text))


def tool(path: str, text: str | None):
    """Replaces a program by a script, or removes it."""
    return lambda d: d.path(path).unlink() if text is None else d.write(path, f"#!/bin/sh\n{text}\n", 0o755)


def key_file(path: str, name: str | None):
    return lambda d: d.path(path).unlink() if name is None else d.install_key(path, name)


def archive(*members: tuple[str, int, bytes]):
    """A signed archive of members (name, mode, content)."""
    def change(d: VirtualDevice) -> None:
        packed = io.BytesIO()
        with tarfile.open(mode="w:gz", fileobj=packed) as tar:
            for name, mode, content in members:
                member = tarfile.TarInfo(name)
                member.mode, member.size = mode, len(content)
                tar.addfile(member, io.BytesIO(content))
        d.publish(d.sign(packed.getvalue()))
    return change


def both(*changes):
    return lambda d: [change(d) for change in changes]


def setting(key: str, value: str | None):
    return lambda d: d.set_pref(key, value)


def other_authority(d: VirtualDevice) -> None:
    d.write("/etc/ssl/certs/ca-certificates.crt", d.keys.server("other.example")[0])


def truncated_archive(d: VirtualDevice) -> None:
    d.publish(d.sign(d.make_bundle(files={"data": bytes(range(256)) * 9}).archive[:-40]))


PROD = "/etc/zelo/pubkeyprod.pem"
SET_PROP, SEND_EVENT = "/usr/bin/kbus-set-prop", "/usr/bin/kbus-send-event"

ROWS = [
    Row("no bus", lambda d: d.path("/run/kbus.sock").unlink(), [ended("Failed to initialize kbus handle")],
        status=1),
    Row("no /tmp", lambda d: d.path("/tmp").rmdir(), [ended("unable to create temp directory. errno 2")],
        status=1),
    *[Row(f"{key} {value}", setting(key, value), [STAGES[0], ended("stoi")], status=1)
      for key, value in ((RETRIES, "many"), (TIMEOUT, "99999999999"))],

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
    defaults = [f"W def:zeloinstall:zeloutils:{key} key does not exist in prefbox"
                for key in (RETRIES, TIMEOUT)]
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


def test_what_the_script_sees(device: VirtualDevice) -> None:
    device.publish(device.make_bundle(script="#!/usr/bin/zelo-probe\n"))
    assert device.start(env={"PATH": "/bin", "SECRET": "x"}).wait() == 0
    [work] = device.work_directories()
    assert json.loads(device.path("/tmp/probe.out").read_text()) == {
        "argv": ["/usr/bin/zelo-probe", f"/tmp/{work.name}/run.sh"], "environ": [], "cwd": "/",
        "descriptors": [0, 1, 2], "blocked": [], "ignored": []}


def test_one_at_a_time_and_free_afterwards(device: VirtualDevice) -> None:
    scenario = next(scenario for scenario in SCENARIOS if scenario.title == "second start")
    scenario.prepare(device)
    first, second = scenario.play(device)
    assert (first.status, second.status) == (0, 1)
    assert not set(second.log_lines()) & {*STAGES, END}
    device.publish(device.make_bundle())
    assert device.start().wait() == 0
