"""Shows on virtual devices what the daemon does with good and bad bundles."""

import os
import sys
from collections.abc import Callable, Iterator
from contextlib import contextmanager
from dataclasses import dataclass
from pathlib import Path

from device.https_server import Content, Status
from device.run import Run
from device.virtual_device import ARCHIVE, VirtualDevice

RETRIES = "zelo.installer.download.retries"
TIMEOUT = "zelo.installer.download.timeout.seconds"
TEMPLATE = "url.zelo.installer.metadata"

LEVELS = {3: "err", 4: "warning", 5: "notice"}


def start_once(device: VirtualDevice) -> list[Run]:
    run = device.start()
    run.wait()
    return [run]


@dataclass(frozen=True)
class Scenario:
    title: str
    published: str
    prepare: Callable[[VirtualDevice], None]
    says: str  # a part of the log line that tells the story
    code: str | None = None  # what the user is shown
    statuses: tuple[int, ...] = (0,)
    play: Callable[[VirtualDevice], list[Run]] = start_once


def good(device: VirtualDevice) -> None:
    device.publish(device.make_bundle())


def unreachable(device: VirtualDevice) -> None:
    device.set_pref(TEMPLATE, "https://bundles.zelo.example:1/zelo_installer_meta.json?version=%s&package=%s")
    device.set_pref(RETRIES, "1")


def plain_http(device: VirtualDevice) -> None:
    bundle = device.make_bundle()
    device.publish(bundle.with_url(device.url(ARCHIVE).replace("https:", "http:")))


def tampered(device: VirtualDevice) -> None:
    device.publish(device.make_bundle().tampered())


def dev_signed(device: VirtualDevice) -> None:
    device.publish(device.make_bundle("dev"))


def dev_signed_with_marker(device: VirtualDevice) -> None:
    device.marker(True)
    dev_signed(device)


def no_archive(device: VirtualDevice) -> None:
    device.publish(device.sign(b"this is no gzip archive\n"))


def recovering(device: VirtualDevice) -> None:
    bundle = device.make_bundle()
    device.publish(bundle)
    device.server.answer(ARCHIVE, Status(503), Content(bundle.archive))
    device.set_pref(RETRIES, "3")


def deferred(device: VirtualDevice) -> None:
    good(device)
    device.defer_transfers(9)


def start_and_undefer(device: VirtualDevice) -> list[Run]:
    run = device.start()
    run.wait_for_line("continue monitoring progress")
    device.defer_transfers(None)
    run.wait()
    return [run]


def failing_script(device: VirtualDevice) -> None:
    device.publish(device.make_bundle(script="#!/bin/sh\nexit 1\n"))


def no_attempt(device: VirtualDevice) -> None:
    good(device)
    device.set_pref(RETRIES, "-1")


def waiting_script(device: VirtualDevice) -> None:
    os.mkfifo(device.path("/run/gate"))
    device.publish(device.make_bundle(script="#!/bin/sh\nread line < /run/gate\n"))


def start_twice(device: VirtualDevice) -> list[Run]:
    first = device.start()
    first.wait_for_line("Running installer")
    second = device.start()
    second.wait()
    device.path("/run/gate").write_text("go on\n")
    first.wait()
    return [first, second]


SCENARIOS = (
    Scenario("good bundle", "a bundle signed with the production key", good, "signum=0:We're going down"),
    Scenario("unreachable", "nothing: nobody listens at the configured address; one retry", unreachable,
             "metadata download failed due to download failed", "02"),
    Scenario("address refused", "a document that names an http address", plain_http,
             "http/loopback address not allowed", "02"),
    Scenario("tampered bundle", "a bundle with one bit changed after it was signed", tampered,
             "failed to execute command. code=00", "00"),
    Scenario("development bundle, ordinary device", "a bundle signed with the development key", dev_signed,
             "failed to execute command. code=00", "00"),
    Scenario("development bundle, debugging marker", "a bundle signed with the development key",
             dev_signed_with_marker, "Running installer"),
    Scenario("no archive", "signed bytes that are no gzip archive", no_archive, "code=01", "01"),
    Scenario("download recovers", "a good bundle, but the first request gets status 503", recovering,
             "bundle download failed due to download failed"),
    Scenario("deferred, then completed", "a good bundle; the transfer service puts the download off for a while",
             deferred, "download deferred due to high priority items", play=start_and_undefer),
    Scenario("failing script", "a bundle whose run.sh ends with status 1", failing_script, "code=03", "03"),
    Scenario("retries set to -1", "a good bundle", no_attempt, "illegal state. code=99", "99"),
    Scenario("second start", "a bundle whose run.sh waits until the second start has ended", waiting_script,
             "one more instance of zeloinstall is running. Exiting", None, (0, 1), start_twice),
)


@contextmanager
def staged(build: Path, scenario: Scenario) -> Iterator[VirtualDevice]:
    """A device on which the scenario is ready to be played."""
    with VirtualDevice(build) as device:
        device.set_pref(RETRIES, "0")
        device.set_pref(TIMEOUT, "20")
        scenario.prepare(device)
        yield device


def faults(scenario: Scenario, device: VirtualDevice, runs: list[Run]) -> list[str]:
    """What did not go as the scenario says."""
    found = []
    statuses = tuple(run.status for run in runs)
    if statuses != scenario.statuses:
        found.append(f"exit status {statuses} instead of {scenario.statuses}")
    if not any(scenario.says in line for line in device.log_lines()):
        found.append(f"no log line says {scenario.says!r}")
    shown = [line.split(": ")[1] for line in device.shell_lines()]
    expected = [] if scenario.code is None else ["load = zelo", f"showError {scenario.code}"]
    if shown != expected:
        found.append(f"the UI shell shows {shown} instead of {expected}")
    return found


def show(scenario: Scenario, device: VirtualDevice, runs: list[Run]) -> None:
    print(f"=== {scenario.title}\npublished:   {scenario.published}\nlog:")
    for line in device.syslog.lines():
        print(f"  {LEVELS.get(line.priority & 7, line.priority):<7}  {line.ident}[{line.pid}]: {line.text}")
    print(f"exit status: {', '.join(str(run.status) for run in runs)}")
    print("UI shell:    " + ("; ".join(device.shell_lines()) or "nothing shown"))


def main() -> int:
    build = Path(sys.argv[1])
    failed = 0
    for scenario in SCENARIOS:
        with staged(build, scenario) as device:
            runs = scenario.play(device)
            show(scenario, device, runs)
            for fault in faults(scenario, device, runs):
                print(f"UNEXPECTED:  {fault}")
                failed = 1
        print(flush=True)
    return failed


if __name__ == "__main__":
    sys.exit(main())
