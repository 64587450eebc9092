"""What can be changed about a device, and what a start of the daemon then logs, ends with and shows.

The demo and the tests are made of these words.
"""

import io
import json
import re
import tarfile
from collections.abc import Callable, Iterator
from contextlib import contextmanager
from dataclasses import dataclass, replace
from pathlib import Path

from device.bundles import INSTALLED, SUCCEEDING_SCRIPT
from device.https_server import Answer
from device.run import Run
from device.virtual_device import MARKER, VirtualDevice

RETRIES = "zelo.installer.download.retries"
TIMEOUT = "zelo.installer.download.timeout.seconds"
TEMPLATE = "url.zelo.installer.metadata"
NOBODY = "https://bundles.zelo.example:1/zelo_installer_meta.json?version=%s&package=%s"
PROD = "/etc/zelo/pubkeyprod.pem"
SET_PROP, SEND_EVENT = "/usr/bin/kbus-set-prop", "/usr/bin/kbus-send-event"

STAGES = [f"I def:zeloinstall:main:{stage}" for stage in (
    "Downloading metadata", "Downloading bundle", "Validating bundle", "Extracting bundle",
    "Running installer")]
METADATA_FAILED = "W def:zeloinstall:ZeloInstallerBundleMetadata:metadata download failed due to "
BUNDLE_FAILED = "W def:zeloinstall:ZeloInstallerBundleMetadata:bundle download failed due to "
DEV_REFUSED = "E def:zeloinstall:zeloinstallerbundle:validation failed against dev key due to "
NO_COMMAND = "failed to execute command"
LOST = "download failed"
NOT_TAKEN = "initiating download failed"
ANOTHER = "I def:zeloinstall:main:one more instance of zeloinstall is running. Exiting"


def going_down(signum: int) -> str:
    return f"I def:zeloinstall:signum={signum}:We're going down..."


END = going_down(0)


def defaulted(key: str) -> str:
    return f"W def:zeloinstall:zeloutils:{key} key does not exist in prefbox"


def reported(message: str, code: str) -> str:
    return f"E def:zeloinstall:zeloutils:zelo exception: {message}. code={code}"


def ended(reason: str) -> str:
    return f"E def:zeloinstall:main:ending with status 1: {reason}"


def own_lines(source: VirtualDevice | Run) -> list[str]:
    """The log without what the transfers and the platform say for themselves."""
    return [line for line in source.log_lines() if not re.match("[IW] TransferWrapper:|kbus: ", line)]


def script_runs(device: VirtualDevice) -> int:
    """How many times the scripts of bundles have run."""
    file = device.path(INSTALLED)
    return file.read_text().count("installed\n") if file.exists() else 0


def told_user(device: VirtualDevice) -> list[str]:
    return [line.split(": ")[1] for line in device.shell_lines()]


@contextmanager
def ready_device(build: Path) -> Iterator[VirtualDevice]:
    """A device with a good bundle published, one attempt at each download and a short time limit."""
    with VirtualDevice(build) as device:
        device.set_pref(RETRIES, "0")
        device.set_pref(TIMEOUT, "20")
        device.publish(device.make_bundle())
        yield device


Change = Callable[[VirtualDevice], object]


def nothing(device: VirtualDevice) -> None:
    pass


def together(*changes: Change) -> Change:
    return lambda d: [change(d) for change in changes]


def setting(key: str, value: str | None) -> Change:
    return lambda d: d.set_pref(key, value)


def answer(path: str, *answers: Answer) -> Change:
    return lambda d: d.server.answer(path, *answers)


def members(**changed: object) -> Change:
    """Changes members of the published document; None removes one."""
    def change(d: VirtualDevice) -> None:
        document = {**json.loads(d.published.document), **changed}
        present = {name: value for name, value in document.items() if value is not None}
        d.publish(replace(d.published, document=json.dumps(present).encode()))
    return change


def signed(key: str) -> Change:
    """Signs what is published with another key."""
    return lambda d: d.publish(d.sign(d.published.archive, key))


def tampered(d: VirtualDevice) -> None:
    """One bit of the archive differs from what was signed."""
    archive = d.published.archive
    d.publish(replace(d.published, archive=archive[:-1] + bytes([archive[-1] ^ 1])))


def script(text: str) -> Change:
    return lambda d: d.publish(d.make_bundle(script=f"#!/bin/sh\nset -e\n{text}\n"))


def archive(mode: int = 0o755, packing: str = "gz") -> Change:
    """An archive with a run.sh that succeeds."""
    packed = io.BytesIO()
    with tarfile.open(mode=f"w:{packing}", fileobj=packed) as tar:
        member = tarfile.TarInfo("run.sh")
        member.mode, member.size = mode, len(SUCCEEDING_SCRIPT)
        tar.addfile(member, io.BytesIO(SUCCEEDING_SCRIPT.encode()))
    return lambda d: d.publish(d.sign(packed.getvalue()))


def tool(path: str, text: str | None) -> Change:
    """Replaces a program by a script, or removes it."""
    return lambda d: d.path(path).unlink() if text is None else d.write(path, f"#!/bin/sh\n{text}\n", 0o755)


def marker(d: VirtualDevice) -> None:
    d.write(MARKER, "")


Play = Callable[[VirtualDevice], list[Run]]


def start_once(device: VirtualDevice) -> list[Run]:
    run = device.start()
    run.wait()
    return [run]


@dataclass(frozen=True)
class Case:
    name: str
    change: Change
    lines: list[str]
    script_runs: int
    shown: tuple[str, ...] = ()
    statuses: tuple[int, ...] = (0,)
    published: str = ""  # what the demo says of it
    play: Play = start_once

    def faults(self, device: VirtualDevice, runs: list[Run]) -> list[str]:
        """What did not go as it should."""
        found = {
            "exit status": (tuple(run.status for run in runs), self.statuses),
            "log": (own_lines(device), self.lines),
            "UI shell": (tuple(told_user(device)), self.shown),
            "runs of the script": (script_runs(device), self.script_runs),
        }
        return [f"{what}: {got}\n  instead of {wanted}" for what, (got, wanted) in found.items()
                if got != wanted]


def good(name: str, change: Change, *more: str, published: str = "") -> Case:
    """A run that goes through all stages; `more` is logged while the bundle is validated."""
    return Case(name, change, [*STAGES[:3], *more, *STAGES[3:], END], 1, published=published)


def failing(name: str, change: Change, stages: int, message: str, code: str, *warnings: str,
            script_runs: int = 0, published: str = "") -> Case:
    """A run that begins so many stages and reports the code."""
    return Case(name, change, [*STAGES[:stages], *warnings, reported(message, code), END], script_runs,
                ("load = zelo", f"showError {code}"), published=published)


def fatal(name: str, change: Change, stages: int, reason: str, *before: str,
          shown: tuple[str, ...] = ()) -> Case:
    """A run that nobody can be told about."""
    return Case(name, change, [*STAGES[:stages], *before, ended(reason)], 0, shown, (1,))
