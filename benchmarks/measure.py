"""Compares the daemon with a script that does the same by hand, and with an empty program that is linked
with the same libraries: what the daemon adds to that is its own.

Every round runs all three in turn on the virtual device, so that what slows the machine down slows them all.
"""

from device import alone

if __name__ == "__main__":
    alone.enter()

import argparse
import os
import shutil
import signal
import statistics
import subprocess
import time
from collections.abc import Iterable
from dataclasses import dataclass
from pathlib import Path

from device.rootfs import libraries
from device.run import Run
from device.virtual_device import DOCUMENT, VirtualDevice

MB = 1_000_000
RATIO_TARGETS = {1: None, 64: 1.02, 256: 1.00}  # by size in MB; one of 1 MB is the start of some programs
TARGETS = {"first_line": (3, "ms"), "processor": (4, "ms"), "peak": (3, "MiB"), "anonymous": (0.4, "MiB")}
TITLES = ("bundle", "daemon : script", "first log line", "processor time", "VmHWM", "RssAnon")
LARGE = 256  # from here on a third of the rounds must do
PATIENCE = 3600  # a slow machine is no error
GATE = "/tmp/gate"
BY_HAND = "/usr/bin/by-hand"
EMPTY = "/usr/bin/bench-empty"
SCRIPT = f"#!/bin/sh\n[ ! -p {GATE} ] || read -r line < {GATE}\n"


@dataclass
class Usage:
    """Of one process until now: memory in MiB, processor time in milliseconds."""
    peak: float  # VmHWM
    anonymous: float  # RssAnon
    processor: float


@dataclass
class Round:
    ratio: float  # of the daemon's time to the script's
    first_line: float  # the rest is what the daemon needs more than the empty program
    peak: float
    anonymous: float
    processor: float
    usage: Usage


def milliseconds_since(begin: float) -> float:
    return 1000 * (time.perf_counter() - begin)


def timed(device: VirtualDevice, *command: str) -> float:
    begin = time.perf_counter()
    # Without a time limit: waiting with one polls, in steps of up to 50 ms.
    status = device.popen(command, stdout=subprocess.DEVNULL).wait()
    elapsed = milliseconds_since(begin)
    if status != 0:
        raise SystemExit(f"bench: {command[0]} ended with status {status}")
    return elapsed


def by_hand(device: VirtualDevice) -> float:
    directory = device.path("/tmp/by-hand")
    directory.mkdir()
    elapsed = timed(device, BY_HAND, device.url(DOCUMENT))
    shutil.rmtree(directory)
    return elapsed


def failure(run: Run) -> SystemExit:
    return SystemExit("\n".join([f"bench: the daemon failed, status {run.status}", *run.log_lines()]))


def finish(device: VirtualDevice, run: Run) -> None:
    if run.wait(None) != 0 or not any("Running installer" in line for line in run.log_lines()[-2:]):
        raise failure(run)
    for directory in device.work_directories():
        shutil.rmtree(directory)


def daemon(device: VirtualDevice) -> tuple[float, float]:
    """From the start to the end, and to the first log line."""
    begin = time.perf_counter()
    run = device.start()
    run.wait_for_line("Downloading metadata", PATIENCE)
    first_line = milliseconds_since(begin)
    run.wait(None)
    elapsed = milliseconds_since(begin)
    finish(device, run)
    return elapsed, first_line


def usage(pid: int) -> Usage:
    """The process's own figures; those of its children are not in them."""
    lines = Path(f"/proc/{pid}/status").read_text().splitlines()
    sizes = {line.split()[0]: int(line.split()[1]) / 1024 for line in lines if line.endswith(" kB")}
    processor: float = time.clock_gettime((~pid << 3) | 2)  # the kernel's number for the clock of a process
    return Usage(sizes["VmHWM:"], sizes["RssAnon:"], 1000 * processor)


def usage_of_empty(device: VirtualDevice) -> Usage:
    process = device.popen([EMPTY, "stop"])
    os.waitpid(process.pid, os.WUNTRACED)
    found = usage(process.pid)
    process.send_signal(signal.SIGKILL)
    process.wait()
    return found


def open_for_reader(gate: Path) -> int | None:
    try:
        return os.open(gate, os.O_WRONLY | os.O_NONBLOCK)
    except OSError:  # nobody reads yet
        return None


def usage_of_daemon(device: VirtualDevice) -> Usage:
    """When it has done all but wait for the script."""
    gate = device.path(GATE)
    os.mkfifo(gate)
    run = device.start()
    while (opened := open_for_reader(gate)) is None:
        if run.status is not None:
            raise failure(run)
        time.sleep(0.01)
    found = usage(run.pid)
    os.write(opened, b"go on\n")
    os.close(opened)
    finish(device, run)
    gate.unlink()
    return found


def one_round(device: VirtualDevice, script_first: bool) -> Round:
    empty = timed(device, EMPTY)
    # What goes first finds more room in the file system's caches.
    script = by_hand(device) if script_first else 0
    elapsed, first_line = daemon(device)
    script = script or by_hand(device)
    base, own = usage_of_empty(device), usage_of_daemon(device)
    return Round(elapsed / script, first_line - empty, own.peak - base.peak, own.anonymous - base.anonymous,
                 own.processor - base.processor, own)


def verdict(value: float, unit: str, target: float | None) -> str:
    missed = target is not None and round(value, 2) > target
    return f"{value:.2f}{unit and ' '}{unit}{' missed' if missed else ''}"


def middle(found: Iterable[object], name: str) -> float:
    values: list[float] = [getattr(one, name) for one in found]
    return statistics.median(values)


def show(*cells: str) -> None:
    print("| " + " | ".join(f"{cell:<15}" for cell in cells) + " |", flush=True)


def measure(device: VirtualDevice, size: int, rounds: int) -> list[Usage]:
    device.publish(device.make_bundle(script=SCRIPT, files={"payload": os.urandom(size * MB)}))
    found = [one_round(device, script_first=number % 2 == 1) for number in range(rounds)]
    show(f"{size} MB", verdict(middle(found, "ratio"), "", RATIO_TARGETS[size]),
         *(verdict(middle(found, name), unit, target) for name, (target, unit) in TARGETS.items()))
    return [one.usage for one in found]


def main() -> None:
    parser = argparse.ArgumentParser(prog="bench", description=__doc__)
    parser.add_argument("build", type=Path, help="build directory of the daemon")
    parser.add_argument("--rounds", type=int, default=9, metavar="N",
                        help="rounds with each bundle, a third with the largest (default: %(default)s)")
    options = parser.parse_args()
    if options.rounds < 1:
        parser.error("--rounds: at least 1")
    empty = options.build / "benchmarks" / "bench-empty"
    if libraries(empty).keys() != libraries(options.build / "zeloinstall").keys():
        raise SystemExit("bench: the empty program does not load what the daemon loads")
    files = {EMPTY: empty, BY_HAND: Path(__file__).parent / "by_hand.sh"}
    with VirtualDevice(options.build, files) as device:
        print("Medians; but for the ratio, what the daemon needs more than an empty program")
        show(*TITLES)
        show(*["---"] * len(TITLES))
        usages = {size: measure(device, size, options.rounds if size < LARGE else -(-options.rounds // 3))
                  for size in RATIO_TARGETS}
        show("target", " / ".join(f"{target:.2f}" for target in RATIO_TARGETS.values() if target),
             *(f"{target} {unit}" for target, unit in TARGETS.values()))
    growth = {name: middle(usages[LARGE], name) - middle(usages[1], name) for name in ("peak", "anonymous")}
    print(f"Growth from 1 MB to {LARGE} MB: VmHWM {growth['peak']:+.2f} MiB, "
          f"RssAnon {growth['anonymous']:+.2f} MiB")


if __name__ == "__main__":
    main()
