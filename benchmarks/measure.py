"""Compares the daemon with a script that does the same by hand, and with a floor: a program that only makes
the same two downloads. benchmarks/README.md explains the columns.
"""

import argparse
import os
import re
import shutil
import signal
import statistics
import time
from pathlib import Path
from typing import NamedTuple

from device.rootfs import DAEMON
from device.virtual_device import ARCHIVE, DOCUMENT, VirtualDevice

FLOOR = "/usr/bin/bench-floor"
BY_HAND = "/usr/bin/by-hand"
# Whatever starts the bundle's script is stopped when its work is done, as the floor stops itself.
SCRIPT = '#!/bin/sh\nset -e\nkill -STOP "$PPID"\n'
HEADER = """\
| bundle | daemon : script | first log line | processor time | VmHWM    |
|--------|-----------------|----------------|----------------|----------|"""
ROW = "| {:3} MB | {:15.2f} | {:11.1f} ms | {:11.1f} ms | {:4.1f} MiB |"


class Figures(NamedTuple):
    """Times are in milliseconds, memory in MiB. The first line of a program that logs nothing is at 0."""
    elapsed: float
    first_line: float
    processor: float
    peak: float


def watch(device: VirtualDevice, program: str) -> Figures:
    device.path("/tmp/bench").mkdir()
    begin = time.monotonic()
    process = device.popen([program, device.url(DOCUMENT), device.url(ARCHIVE)])  # the daemon ignores both
    _, status = os.waitpid(process.pid, os.WUNTRACED)
    elapsed = time.monotonic() - begin
    if not os.WIFSTOPPED(status):
        raise SystemExit("\n".join([f"bench: {program} failed", *device.log_lines()]))
    logged = [line.arrived for line in device.syslog.lines(process.pid)] or [begin]
    processor: float = time.clock_gettime((~process.pid << 3) | 2)  # the kernel's number for its clock
    [peak] = re.findall(r"VmHWM:\s*(\d+) kB", Path(f"/proc/{process.pid}/status").read_text())

    begin_of_end = time.monotonic()
    process.send_signal(signal.SIGCONT)
    process.wait()  # without a time limit: waiting with one polls
    elapsed += time.monotonic() - begin_of_end
    for directory in device.path("/tmp").iterdir():
        shutil.rmtree(directory)
    return Figures(1000 * elapsed, 1000 * (logged[0] - begin), 1000 * processor, int(peak) / 1024)


def one_round(device: VirtualDevice) -> tuple[float, float, float, float]:
    """The table's columns. All three run in every round: what slows the machine down slows them all."""
    daemon, by_hand, floor = (watch(device, program) for program in (DAEMON, BY_HAND, FLOOR))
    return (daemon.elapsed / by_hand.elapsed, daemon.first_line - floor.first_line,
            daemon.processor - floor.processor, daemon.peak - floor.peak)


def main() -> None:
    parser = argparse.ArgumentParser(prog="bench", description=__doc__)
    parser.add_argument("--rounds", type=int, default=9, metavar="N", help="default: %(default)s")
    options = parser.parse_args()
    if options.rounds < 1:
        parser.error("--rounds: at least 1")
    build = Path(os.environ["ZELO_BUILD_DIR"])
    files = {FLOOR: build / "benchmarks/bench-floor", BY_HAND: Path(__file__).with_name("by_hand.sh")}
    print(HEADER)
    with VirtualDevice(build, files) as device:
        for size in (1, 64, 256):
            payload = os.urandom(size * 1_000_000)
            device.publish(device.make_bundle(script=SCRIPT, files={"payload": payload}))
            rounds = [one_round(device) for _ in range(options.rounds)]
            print(ROW.format(size, *(statistics.median(column) for column in zip(*rounds))), flush=True)


if __name__ == "__main__":
    main()
