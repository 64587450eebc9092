"""A device's root directory: what a device has, and no more."""

import functools
import os
import re
import shutil
import stat
import subprocess
from collections.abc import Mapping
from pathlib import Path

from device import alone
from device.architecture import architecture, native_build

FROM_HOST = ("/bin/sh", "/bin/tar", "/bin/gzip", "/bin/base64", "/bin/mv", "/usr/bin/openssl",
             "/usr/bin/curl", "/usr/bin/dbus-send", "/usr/bin/timeout")
DAEMON = "/usr/sbin/zeloinstall"
TRANSFER_SERVICE, UI_SHELL = "/usr/sbin/transfer-service", "/usr/bin/vestrel"
BUS_TOOLS = Path(__file__).resolve().parents[1] / "standin" / "tools"
LONGEST_WAY = 1000  # names of a path, or it is a loop of links
DIRECTORIES = ("dev", "etc/zelo", "etc/ssl/certs", "proc", "run", "tmp", "usr/bin", "usr/lib", "usr/lib64",
               "usr/sbin", "var/lib/prefbox", "var/run")
LINKS = {"bin": "usr/bin", "sbin": "usr/sbin", "lib": "usr/lib", "lib64": "usr/lib64"}


def inside(root: Path, path: str) -> Path:
    """Where an absolute path of the device is here. Links on the way to it lead to places on the device."""
    here, ahead = root, path.split("/")[::-1]
    for _ in range(LONGEST_WAY):
        if len(ahead) == 1:
            break
        name = ahead.pop()
        if name == "..":
            here = here if here == root else here.parent
        elif (here / name).is_symlink():
            target = os.readlink(here / name)
            here = root if target.startswith("/") else here
            ahead += target.split("/")[::-1]
        else:
            here /= name
    return here / ahead[0]


@functools.cache
def libraries(program: Path) -> dict[str, Path]:
    """The shared libraries of a program: where each is on a device, and here. Other files have none."""
    kind = architecture(program)
    with open(program, "rb") as file:
        if file.read(4) != b"\x7fELF":
            return {}
    listing = subprocess.run([*kind.ldd, program], capture_output=True, text=True, check=False).stdout
    if missing := re.findall(r"^\s*(\S+) => not found", listing, re.MULTILINE):
        raise FileNotFoundError(f"{program} needs {', '.join(missing)}")
    found = {}
    for name, path in re.findall(r"(?:(\S+) => )?(/.+) \(0x", listing):
        # The loader searches the directory without being told; the loader itself has one fixed path.
        found[f"{kind.directory}/{name}" if name else path] = kind.here(path)
    return found


def device_programs(build: Path) -> dict[str, Path]:
    """What is on a device so that the daemon can run there: path on the device -> path here."""
    daemon, standin = build / "zeloinstall", native_build(build) / "standin"
    return {
        **{path: Path(os.path.realpath(path)) for path in FROM_HOST},
        **{path: Path(path) for path in architecture(daemon).launcher},
        DAEMON: daemon,
        TRANSFER_SERVICE: standin / "transfer-service",
        UI_SHELL: standin / "vestrel",
        **{f"/usr/bin/{name}": BUS_TOOLS / name for name in ("kbus-set-prop", "kbus-send-event")},
    }


def fill(root: Path, build: Path, files: Mapping[str, Path]) -> None:
    """Fills the new directory `root` with the programs of a device and their libraries.

    `files` adds files or replaces some: path on the device -> path here. What starts the daemon comes along
    if it is foreign. All are copies: what a device does to its own must not reach this machine's.
    """
    for directory in DIRECTORIES:
        (root / directory).mkdir(parents=True, exist_ok=True)
    for name, target in LINKS.items():
        (root / name).symlink_to(target)
    (root / "tmp").chmod(0o1777)

    programs = {**device_programs(build), **files}
    copies = {path: source for program in programs.values() for path, source in libraries(program).items()}
    for path, source in {**copies, **programs}.items():
        copy = root / path.lstrip("/")
        copy.parent.mkdir(parents=True, exist_ok=True)
        shutil.copy(source, copy)


def make_null_device(path: Path) -> None:
    """A /dev/null; a plain file does where the real one cannot be made or used."""
    if alone.confined():  # where nobody may make one; this machine's keeps its owner and mode
        path.unlink(missing_ok=True)
        path.touch()
        alone.mount("-o", "bind,ro,nosuid,noexec", "/dev/null", path)
        return
    try:
        os.mknod(path, 0o666 | stat.S_IFCHR, os.makedev(1, 3))
        path.write_bytes(b"x")
    except OSError:
        path.unlink(missing_ok=True)
        path.touch()
    path.chmod(0o666)
