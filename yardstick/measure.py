"""Compares the daemon with the bare tools and with a script that does the same by hand.

Every round runs all three in turn on the virtual device, so that what slows the machine down slows them all.
"""

import argparse
import json
import os
import shutil
import statistics
import subprocess
import time
from dataclasses import dataclass
from pathlib import Path

from device.bundles import Bundle
from device.run import Run
from device.virtual_device import DOCUMENT, VirtualDevice

MB = 1_000_000
SIZES = (0, 1, 64, 256)
GATE = "/tmp/gate"
BY_HAND = "/usr/bin/by-hand"
BARE = "/usr/bin/bench-bare"
WAITING_SCRIPT = f"#!/bin/sh\nread -r line < {GATE}\n"


@dataclass
class Timings:
    bare: float
    daemon: float
    by_hand: float
    first_line: float


@dataclass
class Usage:
    peak: float  # MiB
    anonymous: float  # MiB
    own: float  # processor time of the daemon's threads, ms
    platform: float  # that of the stand-in's threads, ms


def spent(command: list[str], device: VirtualDevice) -> float:
    begin = time.perf_counter()
    device.command(command)
    return time.perf_counter() - begin


def fresh(device: VirtualDevice, name: str) -> Path:
    directory = device.path(f"/tmp/{name}")
    shutil.rmtree(directory, ignore_errors=True)
    directory.mkdir()
    return directory


def forget_runs(device: VirtualDevice) -> None:
    for directory in device.work_directories():
        shutil.rmtree(directory)


def timing_round(device: VirtualDevice, bundle: Bundle) -> Timings:
    bare = fresh(device, "bare")
    (bare / "zelo_installer.tar.gz").write_bytes(bundle.archive)
    (bare / "signature").write_text(json.loads(bundle.document)["signature"])
    bare_time = spent([BARE], device)

    begin = time.perf_counter()
    run = device.start()
    run.wait_for_line("Downloading metadata")
    first_line = time.perf_counter() - begin
    assert run.wait() == 0 and "Running installer" in run.log_lines()[-2]
    daemon_time = time.perf_counter() - begin
    forget_runs(device)

    fresh(device, "by-hand")
    return Timings(bare_time, daemon_time, spent([BY_HAND, device.url(DOCUMENT)], device), first_line)


def usage_at_the_gate(run: Run) -> Usage:
    status = dict(line.split(":", 1) for line in Path(f"/proc/{run.pid}/status").read_text().splitlines())
    own = 0.0
    for task in Path(f"/proc/{run.pid}/task").iterdir():
        if (task / "comm").read_text() == "zeloinstall\n":
            own += int((task / "schedstat").read_text().split()[0]) / 1e6
    # The kernel's number for the clock of a process, which counts threads that have ended too.
    everything = time.clock_gettime((~run.pid << 3) | 2) * 1000
    return Usage(int(status["VmHWM"].split()[0]) / 1024, int(status["RssAnon"].split()[0]) / 1024, own,
                 everything - own)


def usage_round(device: VirtualDevice) -> Usage:
    gate = device.path(GATE)
    gate.unlink(missing_ok=True)
    os.mkfifo(gate)
    run = device.start()
    run.wait_for_line("Running installer")
    with open(gate, "w") as opened:  # waits until the script has opened its end
        usage = usage_at_the_gate(run)
        opened.write("go\n")
    assert run.wait() == 0
    forget_runs(device)
    return usage


def verdict(value: float, limit: float) -> str:
    return f"{value:.2f} (target {limit:g}: {'met' if value <= limit else 'missed'})"


def measure(device: VirtualDevice, size: int, rounds: int) -> None:
    payload = {"payload": os.urandom(size * MB)} if size else {}
    bundle = device.make_bundle(script="#!/bin/sh\n", files=payload)
    device.publish(bundle)
    timings = [timing_round(device, bundle) for _ in range(rounds)]
    device.publish(device.make_bundle(script=WAITING_SCRIPT, files=payload))
    usages = [usage_round(device) for _ in range(min(rounds, 5))]

    def median(values) -> float:
        return statistics.median(values)

    print(f"\n== bundle of {size} MB, {rounds} rounds, medians")
    print(f"(a) bare tools      {1000 * median(t.bare for t in timings):8.1f} ms")
    print(f"(b) zeloinstall     {1000 * median(t.daemon for t in timings):8.1f} ms")
    print(f"(c) script by hand  {1000 * median(t.by_hand for t in timings):8.1f} ms")
    ratio = median(t.daemon / t.by_hand for t in timings)
    print(f"b/c, paired         {verdict(ratio, 1.05) if size >= 64 else f'{ratio:.2f}'}")
    print(f"b/a, paired         {median(t.daemon / t.bare for t in timings):.2f}")
    print(f"first log line      {verdict(1000 * median(t.first_line for t in timings), 25)} ms")
    print(f"own processor time  {verdict(median(u.own for u in usages), 30)} ms, "
          f"besides the transfer service's {median(u.platform for u in usages):.2f} ms")
    print(f"RssAnon             {verdict(median(u.anonymous for u in usages), 2.5)} MiB")
    print(f"VmHWM               {verdict(median(u.peak for u in usages), 17)} MiB", flush=True)


def main() -> None:
    parser = argparse.ArgumentParser(description=__doc__)
    parser.add_argument("build", type=Path)
    parser.add_argument("--rounds", type=int, default=7)
    options = parser.parse_args()
    here = Path(__file__).parent
    curl = shutil.which("curl")
    if curl is None:
        raise SystemExit("bench: curl is missing")
    files = {BARE: options.build / "yardstick" / "bench-bare", "/usr/bin/curl": Path(curl), BY_HAND: here / "by_hand.sh"}
    with VirtualDevice(options.build, files) as device:
        for size in SIZES:
            measure(device, size, options.rounds)


if __name__ == "__main__":
    main()
