"""Compares the daemon with the bare tools and with a script that does the same by hand.

Every round runs all three in turn on the virtual device, so that what slows the machine down slows them all.
Rounds of their own look at the daemon's memory and processor time.
"""

import argparse
import json
import os
import shutil
import statistics
import subprocess
import time
from collections.abc import Iterable
from dataclasses import dataclass
from pathlib import Path

from device.bundles import Bundle
from device.run import Run
from device.virtual_device import DOCUMENT, VirtualDevice

MB = 1_000_000
SIZES = (0, 1, 64, 256)
COMPARED = 64  # from here on the work is more than the start of some programs
LARGE = 256  # from here on a third of the rounds must do
USAGE_ROUNDS = 3
SAMPLE_SECONDS = 0.01
PATIENCE = 3600  # a slow machine is no error
GATE = "/tmp/gate"
BY_HAND = "/usr/bin/by-hand"
BARE = "/usr/bin/bench-bare"
# Waits where there is a gate to wait at, so that the same bundle serves both kinds of rounds.
SCRIPT = f"#!/bin/sh\n[ ! -p {GATE} ] || read -r line < {GATE}\n"


@dataclass
class Timings:
    """Of one round, in milliseconds."""
    bare: float
    daemon: float
    by_hand: float
    first_line: float


@dataclass
class Usage:
    """Of one run: memory in MiB, processor time in milliseconds."""
    peak: float  # VmHWM
    anonymous: float  # RssAnon while the script runs
    anonymous_peak: float  # the highest that was seen
    own: float  # of the main and the shutdown threads; the main thread's includes the start by chroot
    platform: float  # of the stand-in's threads: transfers and bus


def milliseconds_since(begin: float) -> float:
    return 1000 * (time.perf_counter() - begin)


def tools(device: VirtualDevice, *command: str) -> float:
    begin = time.perf_counter()
    # Without a time limit: waiting with one polls, in steps of up to 50 ms.
    status = device.popen(command, stdout=subprocess.DEVNULL).wait()
    elapsed = milliseconds_since(begin)
    if status != 0:
        raise SystemExit(f"bench: {command[0]} ended with status {status}")
    return elapsed


def failure(run: Run) -> SystemExit:
    return SystemExit("\n".join([f"bench: the daemon failed, status {run.status}", *run.log_lines()]))


def expect_success(run: Run) -> None:
    if run.wait(None) != 0 or not any("Running installer" in line for line in run.log_lines()[-2:]):
        raise failure(run)


def daemon(device: VirtualDevice) -> tuple[float, float]:
    """From the start to the end, and to the first log line."""
    begin = time.perf_counter()
    run = device.start()
    run.wait_for_line("Downloading metadata", PATIENCE)
    first_line = milliseconds_since(begin)
    run.wait(None)
    elapsed = milliseconds_since(begin)
    expect_success(run)
    forget_runs(device)
    return elapsed, first_line


def by_hand(device: VirtualDevice) -> float:
    fresh(device, "by-hand")
    elapsed = tools(device, BY_HAND, device.url(DOCUMENT))
    shutil.rmtree(device.path("/tmp/by-hand"))
    return elapsed


def bare(device: VirtualDevice, bundle: Bundle) -> float:
    directory = fresh(device, "bare")
    (directory / "zelo_installer.tar.gz").write_bytes(bundle.archive)
    (directory / "signature").write_text(json.loads(bundle.document)["signature"])
    elapsed = tools(device, BARE)
    shutil.rmtree(directory)
    return elapsed


def fresh(device: VirtualDevice, name: str) -> Path:
    directory = device.path(f"/tmp/{name}")
    shutil.rmtree(directory, ignore_errors=True)
    directory.mkdir()
    return directory


def forget_runs(device: VirtualDevice) -> None:
    for directory in device.work_directories():
        shutil.rmtree(directory)


def timing_round(device: VirtualDevice, bundle: Bundle, script_first: bool) -> Timings:
    bare_time = bare(device, bundle)
    # What goes first finds more room in the file system's caches.
    by_hand_time = by_hand(device) if script_first else 0
    daemon_time, first_line = daemon(device)
    if not script_first:
        by_hand_time = by_hand(device)
    return Timings(bare_time, daemon_time, by_hand_time, first_line)


def memory(run: Run) -> dict[str, float]:
    """The process's own figures in MiB; those of its children are not in them."""
    lines = Path(f"/proc/{run.pid}/status").read_text().splitlines()
    fields = (line.split() for line in lines if line.endswith(" kB"))
    return {name.rstrip(":"): int(size) / 1024 for name, size, _ in fields}


def processor_time(run: Run) -> tuple[float, float]:
    """Until now: of the daemon's own threads, and of the stand-in's."""
    own = 0.0
    for task in Path(f"/proc/{run.pid}/task").iterdir():
        if (task / "comm").read_text() == "zeloinstall\n":  # GLib names the threads of the bus
            own += int((task / "schedstat").read_text().split()[0]) / 1e6
    # The kernel's number for the clock of a process, which counts threads that have ended too, those of the
    # transfers among them.
    everything = time.clock_gettime((~run.pid << 3) | 2) * 1000
    return own, everything - own


def open_for_reader(gate: Path) -> int | None:
    try:
        return os.open(gate, os.O_WRONLY | os.O_NONBLOCK)
    except OSError:  # nobody reads yet
        return None


def usage_round(device: VirtualDevice) -> Usage:
    gate = device.path(GATE)
    os.mkfifo(gate)
    run = device.start()
    anonymous_peak = 0.0
    while (opened := open_for_reader(gate)) is None:
        if run.status is not None:
            raise failure(run)
        anonymous_peak = max(anonymous_peak, memory(run).get("RssAnon", 0))
        time.sleep(SAMPLE_SECONDS)
    now = memory(run)
    usage = Usage(now["VmHWM"], now["RssAnon"], max(anonymous_peak, now["RssAnon"]), *processor_time(run))
    os.write(opened, b"go on\n")
    os.close(opened)
    expect_success(run)
    gate.unlink()
    forget_runs(device)
    return usage


def verdict(value: float, unit: str, limit: float) -> str:
    return f"{value:8.2f}{unit} (target {limit:g}{unit}: {'met' if value <= limit else 'missed'})"


def middle(rounds: Iterable[object], name: str) -> float:
    return statistics.median(getattr(one, name) for one in rounds)


def fastest(timings: list[Timings], name: str) -> float:
    return min(getattr(one, name) for one in timings)


def show(size: int, timings: list[Timings], usages: list[Usage]) -> None:
    ratio = statistics.median(t.daemon / t.by_hand for t in timings)
    ratio_of_fastest = fastest(timings, "daemon") / fastest(timings, "by_hand")
    added = statistics.median(t.daemon - t.bare for t in timings)
    print(f"\n== bundle of {size} MB: medians of {len(timings)} rounds, "
          f"of {len(usages)} for memory and processor")
    for title, name in (("(a) bare tools", "bare"), ("(b) zeloinstall", "daemon"),
                        ("(c) script by hand", "by_hand")):
        print(f"{title:<20}{middle(timings, name):8.1f} ms, fastest {fastest(timings, name):.1f} ms")
    print(f"b/c, paired         {verdict(ratio, '', 1.05) if size >= COMPARED else f'{ratio:8.2f}'}, "
          f"of the fastest {ratio_of_fastest:.2f}")
    print(f"b-a, paired         {added:8.1f} ms")
    print(f"first log line      {verdict(middle(timings, 'first_line'), ' ms', 25)}, "
          f"fastest {fastest(timings, 'first_line'):.1f} ms")
    print(f"own processor time  {verdict(middle(usages, 'own'), ' ms', 30)}")
    print(f"  the stand-in's    {middle(usages, 'platform'):8.2f} ms: threads of transfers and bus")
    print(f"RssAnon             {verdict(middle(usages, 'anonymous'), ' MiB', 2.5)}")
    print(f"  highest sample    {middle(usages, 'anonymous_peak'):8.2f} MiB")
    print(f"VmHWM               {verdict(middle(usages, 'peak'), ' MiB', 17)}", flush=True)


def measure(device: VirtualDevice, size: int, rounds: int) -> list[Usage]:
    payload = {"payload": os.urandom(size * MB)} if size else {}
    bundle = device.make_bundle(script=SCRIPT, files=payload)
    device.publish(bundle)
    timings = [timing_round(device, bundle, script_first=number % 2 == 1) for number in range(rounds)]
    usages = [usage_round(device) for _ in range(USAGE_ROUNDS)]
    show(size, timings, usages)
    return usages


def show_growth(usages: dict[int, list[Usage]]) -> None:
    small, large = 1, max(usages)
    print(f"\n== from {small} MB to {large} MB")
    for label, name in (("RssAnon", "anonymous"), ("VmHWM", "peak")):
        print(f"{label:<8}{middle(usages[large], name) - middle(usages[small], name):+.2f} MiB")


def main() -> None:
    parser = argparse.ArgumentParser(prog="bench", description=__doc__)
    parser.add_argument("build", type=Path, help="build directory of the daemon")
    parser.add_argument("--rounds", type=int, default=9, metavar="N",
                        help="rounds with each bundle, a third with the largest (default: %(default)s)")
    options = parser.parse_args()
    if options.rounds < 1:
        parser.error("--rounds: at least 1")
    files = {BARE: options.build / "benchmarks" / "bench-bare",
             BY_HAND: Path(__file__).parent / "by_hand.sh"}
    with VirtualDevice(options.build, files) as device:
        show_growth({size: measure(device, size, options.rounds if size < LARGE else -(-options.rounds // 3))
                     for size in SIZES})


if __name__ == "__main__":
    main()
