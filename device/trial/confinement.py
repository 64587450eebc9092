"""Keeps what happens on a device away from this machine: with confine.py for all that runs there."""

import subprocess
from pathlib import Path

from device import alone, namespaces
from device.trial.system import BUSYBOX
from device.virtual_device import VirtualDevice

CONFINE = Path(__file__).with_name("confine.py")
NEW_NETWORK = 0x40000000  # from <sched.h>
DEVICES = ("zero", "full", "random", "urandom")
LINKS = {"fd": "/proc/self/fd", "stdin": "fd/0", "stdout": "fd/1", "stderr": "fd/2"}


def impossible() -> str:
    """Why this machine can confine nothing; empty when it can."""
    if not alone.confined():
        return "namespaces are refused here"
    command = ["/usr/bin/unshare", "--user", "--net", "--ipc", "--uts", "--mount", "/bin/true"]
    refusal = subprocess.run(command, capture_output=True, text=True, check=False).stderr.strip()
    return refusal and f"user namespaces are refused here, {refusal}"


def leave_network() -> None:
    """From now on, this process and what it starts have a network with only themselves on it."""
    namespaces.call("unshare", NEW_NETWORK)
    subprocess.run([BUSYBOX, "ip", "link", "set", "lo", "up"], check=True)


def enter(root: Path) -> list[str]:
    """Prefix for a program inside `root` that cannot get out, and neither can what it starts."""
    return ["/usr/bin/python3", "-IS", str(CONFINE), str(root)]


def add_devices(device: VirtualDevice) -> None:
    """Harmless ones of this machine, with an owner and a mode that stay; /dev/null is there already."""
    for name in DEVICES:
        device.write(f"/dev/{name}", "")
        namespaces.mount("-o", "bind,ro,nosuid,noexec", f"/dev/{name}", device.path(f"/dev/{name}"))
    for name, target in LINKS.items():
        device.path(f"/dev/{name}").unlink(missing_ok=True)
        device.path(f"/dev/{name}").symlink_to(target)
