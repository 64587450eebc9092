"""Leaves nothing behind: ends what lives in a device's directory and removes the directory.

A process of its own watches over the devices, because the one that made them may be killed. It reads
their directories from a pipe and acts when the pipe closes.
"""

import os
import signal
import subprocess
import sys
import time
from collections.abc import Iterator
from pathlib import Path

from device.rootfs import remove_tree


def processes_in(base: Path) -> Iterator[int]:
    """Processes whose root or working directory lies in `base`; those of the device all have one."""
    for name in os.listdir("/proc"):
        if not name.isdigit():
            continue
        for place in ("root", "cwd"):
            try:
                inside = Path(os.readlink(f"/proc/{name}/{place}")).is_relative_to(base)
            except OSError:  # gone, or not ours
                break
            if inside:
                yield int(name)
                break


def clear(base: Path) -> None:
    deadline = time.monotonic() + 10
    while living := list(processes_in(base)):
        for pid in living:
            try:
                os.kill(pid, signal.SIGKILL)
            except ProcessLookupError:
                pass
        if time.monotonic() > deadline:
            raise TimeoutError(f"{base}: processes {living} do not end")
        time.sleep(0.005)
    remove_tree(base)


class Guardian:
    """This process's end of the pipe."""

    def __init__(self) -> None:
        package = Path(__file__).resolve().parent
        reader, self._writer = os.pipe()
        try:
            # The process forks and its first half ends: nobody counts it among our children any more.
            subprocess.run([sys.executable, "-m", f"{package.name}.{Path(__file__).stem}"], stdin=reader,
                           cwd=package.parent, start_new_session=True, check=True)
        finally:
            os.close(reader)

    def watch(self, base: Path) -> None:
        os.write(self._writer, f"+{base}\n".encode())

    def forget(self, base: Path) -> None:
        os.write(self._writer, f"-{base}\n".encode())


def main() -> None:
    if os.fork() != 0:
        os._exit(0)
    os.chdir("/")
    watched: set[Path] = set()
    for line in sys.stdin:
        change = watched.add if line[0] == "+" else watched.discard
        change(Path(line[1:].rstrip("\n")))
    for base in watched:
        clear(base)


if __name__ == "__main__":
    main()
