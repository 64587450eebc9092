"""Keeps what happens on a device away from this machine: everything there runs in namespaces.

The device's root is the root of all mounts, and /proc shows only the command's own processes. They end with
the command, and the command ends with the process that started it. It is root in a user namespace below ours,
but cannot mount: it could mount a /proc for writing, and /proc/sys takes root for its owner.
"""

import os
import subprocess
from pathlib import Path

from device import alone
from device.virtual_device import VirtualDevice

BWRAP = ("/usr/bin/bwrap", "--die-with-parent", "--as-pid-1", "--unshare-pid", "--unshare-ipc",
         "--unshare-uts", "--cap-drop", "CAP_SYS_ADMIN", "--cap-drop", "CAP_SYS_BOOT", "--chdir", "/")
# A program of the device, because root could change the mode of one of this machine's through /proc/1/exe.
# Signals do not end the first process of a namespace, unless they come from outside. It says nothing itself.
FIRST_PROCESS = ("/bin/sh", "-c", 'exec 3>&2 2>/dev/null; (exec "$@" 2>&3 3>&-); exit', "sh")
DEVICES = ("zero", "full", "random", "urandom")
LINKS = {"fd": "/proc/self/fd", "stdin": "fd/0", "stdout": "fd/1", "stderr": "fd/2"}


def impossible() -> str:
    """Why this machine can confine nothing; empty when it can."""
    if not alone.confined():
        return "namespaces are refused here"
    command = ["/usr/bin/unshare", "--user", "--ipc", "--uts", "--pid", "--mount", "/bin/true"]
    refusal = subprocess.run(command, capture_output=True, text=True, check=False).stderr.strip()
    return refusal and f"user namespaces are refused here, {refusal}"


def confine(root: Path) -> list[str]:
    """Prefix for a program inside `root` that cannot get out, and neither can what it starts."""
    # Through an open descriptor, root could change the mode of this machine's.
    alone.mount("-o", "bind,ro,nosuid,noexec", "/dev/null", "/dev/null")
    mounts = ("--dev-bind", str(root), "/", "--proc", "/proc", "--remount-ro", "/proc")
    users = ("/usr/bin/nsenter", "--preserve-credentials", f"--user={_user_namespace()}")
    return [*users, *BWRAP, *mounts, *FIRST_PROCESS]


def _user_namespace() -> Path:
    """A new one with the ids of this process."""
    path = alone.place() / "user-namespace"
    path.touch()
    with subprocess.Popen(["/usr/bin/unshare", "--user", "/bin/sh", "-c", "kill -STOP $$"]) as inside:
        os.waitpid(inside.pid, os.WUNTRACED)
        for name in "uid_map", "gid_map":
            ids = (line.split() for line in Path(f"/proc/self/{name}").read_text().splitlines())
            same = "".join(f"{first} {first} {count}\n" for first, _, count in ids)
            Path(f"/proc/{inside.pid}/{name}").write_text(same)
        alone.mount("--bind", f"/proc/{inside.pid}/ns/user", path)
        inside.kill()
    return path


def add_devices(device: VirtualDevice) -> None:
    """Harmless ones of this machine, with an owner and a mode that stay; /dev/null is there already."""
    for name in DEVICES:
        device.write(f"/dev/{name}", "")
        alone.mount("-o", "bind,ro,nosuid,noexec", f"/dev/{name}", device.path(f"/dev/{name}"))
    for name, target in LINKS.items():
        device.path(f"/dev/{name}").unlink(missing_ok=True)
        device.path(f"/dev/{name}").symlink_to(target)
