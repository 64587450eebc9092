"""Shows on virtual devices what the daemon does with good and bad bundles."""

import argparse
import os
from pathlib import Path

from device.bundles import RECORD
from device.cases import (ANOTHER, BUNDLE_FAILED, DEV_REFUSED, END, LOST, METADATA_FAILED, NO_COMMAND, NOBODY,
                          RETRIES, STAGES, TEMPLATE, Case, archive, failing, good, marker, members, nothing,
                          ready_device, script, setting, signed, tampered, together)
from device.gate import Gate
from device.https_server import HOST, Answer
from device.run import Run
from device.virtual_device import ARCHIVE, VirtualDevice


def failing_once(device: VirtualDevice) -> None:
    device.server.answer(ARCHIVE, Answer(status=503), Answer(device.published.archive))
    device.set_pref(RETRIES, "3")


def start_and_undefer(device: VirtualDevice) -> list[Run]:
    run = device.start()
    run.wait_for_line("continue monitoring progress")
    device.defer_transfers(0)
    run.wait()
    return [run]


def start_twice(device: VirtualDevice) -> list[Run]:
    gate = Gate(device)
    first = device.start()
    gate.wait()
    second = device.start()
    second.wait()
    gate.open()
    first.wait()
    return [first, second]


CASES = (
    good("good", nothing, published="a bundle signed with the production key"),
    failing("unreachable", together(setting(TEMPLATE, NOBODY), setting(RETRIES, "1")), 1, LOST, "02",
            *[METADATA_FAILED + LOST] * 2,
            published="nothing: nobody listens at the configured address; one retry"),
    failing("address-refused", together(members(url=f"http://{HOST}{ARCHIVE}"), setting(RETRIES, "3")), 1,
            "http/loopback address not allowed", "02",
            published="a document that names an http address; no retry, although three are allowed"),
    failing("tampered", tampered, 3, NO_COMMAND, "00",
            published="a bundle with one bit changed after it was signed"),
    failing("development-key", signed("dev"), 3, NO_COMMAND, "00",
            published="a bundle signed with the development key, for an ordinary device"),
    good("debugging-marker", together(signed("dev"), marker),
         published="a bundle signed with the development key, for a device with debugging features"),
    good("debugging-marker-production", marker, DEV_REFUSED + NO_COMMAND,
         published="a bundle signed with the production key, for a device with debugging features"),
    failing("not-compressed", archive(packing=""), 4, NO_COMMAND, "01",
            published="a signed archive that is not compressed"),
    Case("recovering", failing_once, [*STAGES[:2], BUNDLE_FAILED + LOST, *STAGES[2:], END], 1,
         published="a good bundle, but the first request gets status 503"),
    Case("deferred", lambda d: d.defer_transfers(9), [*STAGES, END], 1, play=start_and_undefer,
         published="a good bundle; the transfer service puts the download off for a while"),
    failing("failing-script", script(f"{RECORD}; echo no room >&2; exit 1"), 5, NO_COMMAND, "03",
            script_runs=1, published="a bundle whose run.sh says why and ends with status 1"),
    failing("no-attempt", setting(RETRIES, "-1"), 1, "illegal state", "99",
            published="a good bundle, but the number of retries is set to -1"),
    Case("second-start", script(f"{RECORD}\n{Gate.WAIT}"), [*STAGES, ANOTHER, END], 1, statuses=(0, 1),
         play=start_twice, published="a bundle whose run.sh waits until a second start has ended"),
)


def show(case: Case, device: VirtualDevice, runs: list[Run]) -> None:
    print(f"=== {case.name}\npublished:   {case.published}\nlog:")
    for line in device.syslog.lines():
        print(f"  {line.level:<7}  {line.ident}[{line.pid}]: {line.text}")
    for text in (line for run in runs for line in run.output().splitlines()):
        print(f"standard error: {text}")
    print(f"exit status: {', '.join(str(run.status) for run in runs)}")
    print("UI shell:    " + ("; ".join(device.shell_lines()) or "nothing shown"))


def play(case: Case, build: Path) -> bool:
    """Whether all went as it should."""
    with ready_device(build) as device:
        case.change(device)
        runs = case.play(device)
        show(case, device, runs)
        faults = case.faults(device, runs)
    for fault in faults:
        print(f"UNEXPECTED:  {fault}")
    print(flush=True)
    return not faults


def main() -> int:
    cases = {case.name: case for case in CASES}
    parser = argparse.ArgumentParser(
        prog="./demo", description=__doc__,
        epilog="Exit status: 0 when all went as it should, 1 when not, 2 for wrong usage.")
    parser.add_argument("names", nargs="*", metavar="NAME", help="cases to show (default: all)")
    parser.add_argument("--list", action="store_true", help="list the names")
    parser.add_argument("--no-install", action="store_true", help="do not install packages that are missing")
    arguments = parser.parse_args()
    if unknown := [name for name in arguments.names if name not in cases]:
        parser.error(f"nothing is named {', '.join(unknown)}; see --list")
    if arguments.list:
        for case in CASES:
            print(f"{case.name:<28} {case.published}")
        return 0
    build = Path(os.environ.get("ZELO_BUILD_DIR", "build/release"))
    results = [play(cases[name], build) for name in arguments.names or cases]
    return 0 if all(results) else 1
