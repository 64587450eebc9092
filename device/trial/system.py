"""The root of a device that is tried: a small system, or one of the author's."""

import os
import re
import shutil
import subprocess
from collections.abc import Mapping
from pathlib import Path

from device import alone, namespaces, rootfs
from device.rootfs import DIRECTORIES, FROM_HOST, LINKS, device_programs, inside, libraries
from device.services import BUS_SOCKET
from device.virtual_device import VirtualDevice

# To another system, programs bring their own libraries and loader.
BUSYBOX = "/usr/bin/busybox"
REMOUNT = 32  # from <sys/mount.h>
USERS = {"/etc/passwd": "root:x:0:0:root:/:/bin/sh\nnobody:x:65534:65534:nobody:/:/bin/false\n",
         "/etc/group": "root:x:0:\nnogroup:x:65534:\n"}
PRIVATE = "/usr/lib/virtual-device"
STARTER = """#!/bin/sh
exec {private}/lib/{loader} --library-path {private}/lib {private}{program} "$@"
"""


class System:
    """`own` is a directory with the author's, which stays as it is."""

    def __init__(self, own: Path | None):
        self._own = own
        self._storage = Path()
        self.added: list[str] = []  # programs that the daemon needs and the author's system lacked

    def fill(self, root: Path, build: Path, files: Mapping[str, Path]) -> None:
        """Makes `root`; see `rootfs.fill`."""
        if not self._own:
            self._mount_memory(root)
            rootfs.fill(root, build, files)
            return
        if one_user() and self._own.stat().st_uid != 0:  # what belongs to others could not be changed there
            self._mount_memory(root)
            copy_tree(self._own, root, "--no-preserve=ownership")
        elif not alone.confined() or not self._overlay(root, self._own):
            self._mount_memory(root)
            copy_tree(self._own, root)
        for socket in "/dev/log", f"/{BUS_SOCKET}":
            inside(root, socket).unlink(missing_ok=True)
        for link, target in LINKS.items():
            if not os.path.lexists(root / link):
                (root / link).symlink_to(target)
        for directory in DIRECTORIES:
            make_directory(root, f"/{directory}")
        programs = {**device_programs(build), **files}
        self.added = [path for path in FROM_HOST if not has(root, path)]
        for path, source in programs.items():
            if path not in FROM_HOST or path in self.added:
                put(root, path, source)

    def leave_free(self, size: int) -> None:
        """Limits what can be written from now on, where the device is in memory."""
        if alone.confined():
            used = shutil.disk_usage(self._storage).used
            # The program mount would also hand back options that an ordinary user's kernel does not take.
            namespaces.call("mount", None, bytes(self._storage), None, REMOUNT, b"size=%d" % (used + size))

    def _mount_memory(self, path: Path) -> None:
        path.mkdir()
        if alone.confined():
            self._storage = path
            namespaces.mount("-t", "tmpfs", "-o", "mode=755", "tmpfs", path)

    def _overlay(self, root: Path, lower: Path) -> bool:
        """Whether the root could be laid over the author's system."""
        changed = root.with_name("changed")
        self._mount_memory(changed)
        upper, work = changed / "upper", changed / "work"
        try:
            for directory in root, upper, work:
                directory.mkdir()
            os.setxattr(upper, "user.overlay.try", b"y")  # or directories could not be replaced later
            upper.chmod(lower.stat().st_mode)
            options = f"userxattr,lowerdir={lower},upperdir={upper},workdir={work}"
            namespaces.call("mount", b"overlay", bytes(root), b"overlay", 0, options.encode())
        except OSError:
            root.rmdir()
            return False
        return True


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


def copy_tree(source: Path, target: Path, *options: str) -> None:
    """But nothing that a system mounts; cp says what else could not be copied, and goes on."""
    mounted = [word for name in ("dev", "proc", "sys") for word in ("!", "-name", name)]
    subprocess.run(["find", source, "-mindepth", "1", "-maxdepth", "1", *mounted,
                    "-exec", "cp", "-ax", *options, "-t", target, "{}", "+"], check=False)


def make_directory(root: Path, path: str) -> None:
    """With those above it; what links lead to elsewhere stays theirs."""
    here = inside(root, path)
    if here != root and not os.path.lexists(here):
        make_directory(root, os.path.dirname(path))
        here.mkdir()


def has(root: Path, path: str) -> bool:
    """Whether there is a program, through links if need be."""
    here = inside(root, path)
    for _ in range(40):
        if not here.is_symlink():
            return here.is_file() and os.access(here, os.X_OK)
        path = os.path.join(os.path.dirname(path), os.readlink(here))
        here = inside(root, path)
    return False


def put(root: Path, path: str, source: Path) -> None:
    make_directory(root, os.path.dirname(path))
    needed = libraries(source)
    for library, here in needed.items():
        copy(here, inside(root, f"{PRIVATE}/lib/{os.path.basename(library)}"))
    loader = next((os.path.basename(library) for library in needed if "/ld-" in library), "")
    if not loader or ".so" in source.name:
        copy(source, inside(root, path))
        return
    copy(source, inside(root, PRIVATE + path))
    starter = inside(root, path)
    starter.unlink(missing_ok=True)
    starter.write_text(STARTER.format(private=PRIVATE, loader=loader, program=path))
    starter.chmod(0o755)


def copy(source: Path, target: Path) -> None:
    target.parent.mkdir(parents=True, exist_ok=True)
    target.unlink(missing_ok=True)
    shutil.copy(source, target)
