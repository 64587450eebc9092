"""Runs a bundle of yours on a virtual device, twice, and says what happens: may it be shipped?"""

import os
import shlex
import signal
import subprocess
from argparse import Namespace
from collections.abc import Sequence
from contextlib import suppress
from dataclasses import replace
from pathlib import Path

from command import Stopped

from device import alone, services
from device.cases import RETRIES, TIMEOUT
from device.https_server import HOST
from device.keys import Keys
from device.trial import confinement, trace
from device.trial.changes import differences, entries
from device.trial.lines import printable, shortened
from device.trial.options import parse_arguments
from device.trial.publishing import publish
from device.trial.system import BUSYBOX, System, furnish, one_user
from device.trial.verdict import Attempt, judge
from device.trial.watch import Watch
from device.virtual_device import VirtualDevice


def show(title: str, lines: Sequence[str]) -> None:
    """A title and its lines; nothing without any."""
    for line in (f"{title}:", *(f"  {line}" for line in lines)) if lines else ():
        print(printable(line))


class Trial:
    """Attempts on one device, and what they change there."""

    def __init__(self, device: VirtualDevice, timeout: float | None):
        self.interrupted: Stopped | None = None
        self._device = device
        self._timeout = timeout
        self._ours: list[str] = []  # files that are not run.sh's business
        self._entries = entries(device.root)
        why_not = trace.unavailable()
        self._traced = not why_not
        if why_not:
            print(f"not traced ({why_not}): it cannot be told how run.sh ends, what it writes on standard "
                  "output, which programs fail and what it leaves running")

    def attempt(self, name: str) -> Attempt:
        print(f"{name} attempt:", flush=True)
        watch = Watch(self._device, self._traced)
        seen = watch.run(self._timeout)
        self.interrupted = watch.interrupted
        show("shown to the user", watch.shown())
        if seen.script_end:
            print(f"run.sh ended: {seen.script_end}")
        show("programs of run.sh that failed, which may be meant", shortened(watch.trace.failed))
        show("programs not found", seen.not_found)
        show("running when it was stopped" if seen.stopped else "left running", seen.left)
        before, self._entries = self._entries, entries(self._device.root, self._entries)
        for path in self._ours:
            before.pop(path, None)
            self._entries.pop(path, None)
        changes = differences(before, self._entries)
        show(f"changes by the {name} attempt, without the daemon's own files", changes or ["none"])
        return replace(seen, changes=changes)

    def put_back_host(self) -> None:
        """The server's name is the virtual device's own business, but run.sh may have written the file."""
        flags = os.O_RDWR | os.O_APPEND | os.O_CREAT | os.O_NOFOLLOW | os.O_NONBLOCK
        with suppress(OSError):  # then the second attempt says so
            etc = os.open(self._device.root / "etc", os.O_DIRECTORY | os.O_NOFOLLOW)
            with open(os.open("hosts", flags, 0o644, dir_fd=etc), "rb+") as hosts:
                if HOST.encode() not in hosts.read():
                    hosts.write(f"127.0.0.1 {HOST}\n".encode())
                    self._ours = ["/etc/hosts"]
            os.close(etc)


def try_out(device: VirtualDevice, arguments: Namespace) -> int:
    trial = Trial(device, arguments.timeout)
    first, second = trial.attempt("first"), None
    if first.reached_script and not first.stopped and not arguments.once:
        trial.put_back_host()
        second = trial.attempt("second")
        second = None if trial.interrupted else second
    verdict = judge(first, second, arguments.strict)
    print(*map(printable, verdict.lines), sep="\n")
    if trial.interrupted:
        raise trial.interrupted
    return verdict.status


def open_shell(device: VirtualDevice) -> None:
    print("a shell on the device; the device is gone when it ends", flush=True)
    signal.signal(signal.SIGINT, lambda *_: None)  # meant for what runs in the shell
    environment = {"PATH": "/usr/sbin:/usr/bin", "TERM": os.environ.get("TERM", "dumb")}
    # On a terminal of its own, so that nothing in there can type on this one.
    shell = shlex.join([*device.entering, "/bin/sh"])
    command = ["/usr/bin/script", "--quiet", "--command", shell, "/dev/null"]
    subprocess.run(command, env=environment, check=False)


def confined(unconfined: bool) -> bool:
    """Whether run.sh cannot reach this machine; refuses to go on where it can, unless told to."""
    why_not = confinement.impossible()
    if not why_not:
        return True
    if not unconfined:
        raise RuntimeError(f"run.sh cannot be kept away from this machine: {why_not}; "
                           "to run it all the same: --unconfined")
    print(f"NOT CONFINED: run.sh can reach this machine ({why_not})", flush=True)
    return False


def main() -> int:
    arguments = parse_arguments(__doc__)
    build = Path(os.environ.get("ZELO_BUILD_DIR", "build/release"))
    is_confined = confined(arguments.unconfined)
    small_system = not (arguments.bare or arguments.root)
    files = {path: here for addition in arguments.add for path, here in addition.items()}
    if small_system:
        files = {BUSYBOX: Path(BUSYBOX).resolve(), **files}
    system = System(arguments.root)
    device = VirtualDevice(build, files, confinement.confine if is_confined else services.enter, system.fill)
    device.keys = Keys(alone.place() / "keys")  # the build may be somebody else's
    with device:
        if one_user():
            print("the device has no user but root, because you are not root: chown to others fails there")
        show("put on the device, which lacks them", system.added)
        if small_system:
            furnish(device)
        if is_confined:
            confinement.add_devices(device)
        for key, value in [(RETRIES, "0"), (TIMEOUT, "900"), *arguments.setting]:
            device.set_pref(key, value)
        publish(device, arguments)
        status = try_out(device, arguments)
        if arguments.shell:
            open_shell(device)
    return status
