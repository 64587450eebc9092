"""Runs a bundle of yours on a virtual device, twice, and says what happens: may it be shipped?"""

import os
from argparse import Namespace
from pathlib import Path

from command import Stopped

from device import services
from device.cases import RETRIES, TIMEOUT
from device.trial import confinement, trace
from device.trial.changes import differences, entries
from device.trial.lines import printable, shortened, show
from device.trial.options import parse_arguments
from device.trial.publishing import publish
from device.trial.system import BUSYBOX, System, furnish, one_user
from device.trial.verdict import Attempt, judge
from device.trial.watch import Watch
from device.virtual_device import VirtualDevice


def try_out(device: VirtualDevice, arguments: Namespace) -> int:
    attempts: list[Attempt] = []
    before = entries(device.root)
    for name in ("first", "second"):
        print(f"{name} attempt:", flush=True)
        known = len(device.shell_lines())
        attempt = Watch().run(device, arguments.timeout)
        attempt.shown = [line.partition(": ")[2] for line in device.shell_lines()[known:]]
        after = entries(device.root)
        attempt.changes = list(differences(before, after))
        before = after
        describe(attempt, name)
        attempts.append(attempt)
        if arguments.once or attempt.stopped or not attempt.trace.script:
            break
    lines, status = judge(*attempts, strict=arguments.strict)
    print(*map(printable, lines), sep="\n")
    if isinstance(attempt.stopped, Stopped):
        raise attempt.stopped
    return status


def describe(attempt: Attempt, name: str) -> None:
    seen = attempt.trace
    show("shown to the user", attempt.shown)
    if seen.script and seen.script.end:
        print(f"run.sh ended with {seen.script.end}")
    show("programs of run.sh that failed, perhaps as intended", shortened(seen.failed()))
    show("programs not found", shortened(seen.not_found))
    show("refused here, but perhaps not on a device", shortened(seen.refused))
    show("left running", shortened(seen.running().values()))
    show(f"changes by the {name} attempt, without the daemon's own files", attempt.changes or ["none"])


def main() -> int:
    arguments = parse_arguments(__doc__)
    build = Path(os.environ.get("ZELO_BUILD_DIR", "build/release"))
    if cannot_trace := trace.impossible():
        raise RuntimeError(f"nothing can be traced here: {cannot_trace}")
    if why_not := confinement.impossible():
        if not arguments.unconfined:
            raise RuntimeError(f"run.sh cannot be kept away from this machine: {why_not}; "
                               "to run it all the same: --unconfined")
        print(f"NOT CONFINED: run.sh can reach this machine ({why_not})", flush=True)
    files = {path: here for addition in arguments.add for path, here in addition.items()}
    if not arguments.root:
        files = {BUSYBOX: Path(BUSYBOX).resolve(), **files}
    system = System(arguments.root)
    enter = services.enter if why_not else confinement.confine
    with VirtualDevice(build, files, enter, system.fill) as device:
        if one_user():
            print("the device has no user but root, because you are not root: chown to others fails there")
        show("put on the device, which lacks them", system.added)
        if not arguments.root:
            furnish(device)
        if not why_not:
            confinement.add_devices(device)
        for key, value in [(RETRIES, "0"), (TIMEOUT, "900"), *arguments.setting]:
            device.set_pref(key, value)
        publish(device, arguments)
        return try_out(device, arguments)
