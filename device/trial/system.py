"""The root of a device that is tried: a small system, or one of the author's."""

import os
import re
import shutil
import subprocess
from collections.abc import Mapping
from pathlib import Path

from device import alone, rootfs
from device.rootfs import DIRECTORIES, FROM_HOST, LINKS, device_programs, inside, libraries
from device.services import BUS_SOCKET
from device.virtual_device import VirtualDevice

BUSYBOX = "/usr/bin/busybox"
USERS = {"/etc/passwd": "root:x:0:0:root:/:/bin/sh\nnobody:x:65534:65534:nobody:/:/bin/false\n",
         "/etc/group": "root:x:0:\nnogroup:x:65534:\n"}
# To another system, programs bring their own libraries and loader.
PRIVATE = "/usr/lib/virtual-device"
STARTER = """#!/bin/sh
exec {private}/lib/{loader} --library-path {private}/lib {private}{program} "$@"
"""


class System:
    """`own` is a directory with the author's, which stays as it is."""

    def __init__(self, own: Path | None):
        self._own = own
        self.added: list[str] = []  # programs that the daemon needs and the author's system lacked

    def fill(self, root: Path, build: Path, files: Mapping[str, Path]) -> None:
        """Makes `root`; see `rootfs.fill`."""
        if not self._own:
            rootfs.fill(root, build, files)
            return
        root.mkdir()
        if not _overlay(self._own, root):
            _copy_tree(self._own, root)
        for socket in "/dev/log", f"/{BUS_SOCKET}":
            inside(root, socket).unlink(missing_ok=True)
        for link, target in LINKS.items():
            if not os.path.lexists(root / link):
                (root / link).symlink_to(target)
        for directory in DIRECTORIES:
            _followed(root, f"/{directory}").mkdir(parents=True, exist_ok=True)
        programs = {**device_programs(build), **files}
        self.added = [path for path in FROM_HOST if not os.access(_followed(root, path), os.X_OK)]
        for path, source in programs.items():
            if path in files or path not in FROM_HOST or path in self.added:
                _put(root, path, source)


def one_user() -> bool:
    """Whether everything on the device can only belong to root, as it is for an ordinary user."""
    return Path("/proc/self/uid_map").read_text().split()[2] == "1"


def furnish(device: VirtualDevice) -> None:
    """Makes a small system of it: links for what busybox can do and the device does not have."""
    for path, content in USERS.items():
        device.write(path, content)
    names = subprocess.run([BUSYBOX, "--list-full"], capture_output=True, text=True, check=True).stdout
    for name in re.findall(r"\S+/\S+", names):
        link = device.path(name)
        link.parent.mkdir(parents=True, exist_ok=True)
        if not os.path.lexists(link):
            link.symlink_to(BUSYBOX)


def _overlay(own: Path, root: Path) -> bool:
    """Whether the author's system could be laid under the root."""
    if not alone.confined() or (one_user() and own.stat().st_uid != 0):
        return False  # what belongs to others could not be changed there
    upper, work = root.with_name("upper"), root.with_name("work")
    work.mkdir()
    upper.mkdir()
    upper.chmod(own.stat().st_mode)
    # Nobody on the device is to use the author's device nodes, which may be this machine's.
    options = f"nodev,userxattr,lowerdir={own},upperdir={upper},workdir={work}"
    try:
        os.setxattr(upper, "user.overlay.try", b"y")  # or directories could not be replaced later
    except OSError:
        return False
    command = ("/usr/bin/mount", "-t", "overlay", "-o", options, "overlay", str(root))
    return subprocess.run(command, capture_output=True, check=False).returncode == 0


def _copy_tree(source: Path, target: Path) -> None:
    """Leaves out what a system mounts. What cannot be copied either is named by cp, and left out."""
    mounted = [word for name in ("dev", "proc", "sys") for word in ("!", "-name", name)]
    owners = ["--no-preserve=ownership"] if one_user() else []
    subprocess.run(["find", source, "-mindepth", "1", "-maxdepth", "1", *mounted,
                    "-exec", "cp", "-ax", *owners, "-t", target, "{}", "+"], check=False)


def _followed(root: Path, path: str) -> Path:
    """Where an absolute path of the device leads to here."""
    return inside(root, f"{path}/.")


def _put(root: Path, path: str, source: Path) -> None:
    needed = libraries(source)
    for library, here in needed.items():
        _copy(here, inside(root, f"{PRIVATE}/lib/{os.path.basename(library)}"))
    loader = next((os.path.basename(library) for library in needed if "/ld-" in library), "")
    if not loader or ".so" in source.name:
        _copy(source, inside(root, path))
        return
    _copy(source, inside(root, PRIVATE + path))
    starter = inside(root, path)
    starter.parent.mkdir(parents=True, exist_ok=True)
    starter.unlink(missing_ok=True)
    starter.write_text(STARTER.format(private=PRIVATE, loader=loader, program=path))
    starter.chmod(0o755)


def _copy(source: Path, target: Path) -> None:
    target.parent.mkdir(parents=True, exist_ok=True)
    target.unlink(missing_ok=True)
    shutil.copy(source, target)
