"""A device's root directory, filled from a template that each build directory keeps."""

import fcntl
import hashlib
import json
import os
import re
import shutil
import stat
import subprocess
from collections.abc import Iterator, Mapping
from contextlib import contextmanager
from pathlib import Path

from device.architecture import architecture, native_build
from device.services import Shell, TransferService

FROM_HOST = ("/bin/sh", "/bin/tar", "/bin/gzip", "/bin/base64", "/bin/mv", "/usr/bin/openssl",
             "/usr/bin/curl", "/usr/bin/dbus-send", "/usr/bin/timeout")
DAEMON = "/usr/sbin/zeloinstall"
FROM_BUILD = {
    "/usr/bin/vestrel": "standin/vestrel",
    TransferService.PROGRAM: "standin/transfer-service",
}
STANDIN = Path(__file__).resolve().parents[1] / "standin"
SCRIPTS = {
    "/usr/bin/kbus-set-prop": STANDIN / "kbus-set-prop",
    "/usr/bin/kbus-send-event": STANDIN / "kbus-send-event",
    Shell.TOOL: STANDIN / "kbus-set-prop",
}
DIRECTORIES = ("dev", "etc/zelo", "etc/ssl/certs", "proc", "run", "tmp", "usr/bin", "usr/lib", "usr/lib64",
               "usr/sbin", "var/lib/prefbox", "var/run")
LINKS = {"bin": "usr/bin", "sbin": "usr/sbin", "lib": "usr/lib", "lib64": "usr/lib64"}


@contextmanager
def locked(path: Path, operation: int = fcntl.LOCK_EX) -> Iterator[None]:
    """Holds a lock among all processes that use one build directory."""
    path.parent.mkdir(parents=True, exist_ok=True)
    with open(path, "a") as file:
        fcntl.flock(file, operation)
        yield


def libraries(program: Path) -> dict[str, Path]:
    """The shared libraries of a program: where each lies on a device, and here."""
    kind = architecture(program)
    listing = subprocess.run([*kind.ldd, program], capture_output=True, text=True, check=False).stdout
    if missing := re.findall(r"^\s*(\S+) => not found", listing, re.MULTILINE):
        raise FileNotFoundError(f"{program} needs {', '.join(missing)}")
    # The loader searches the directory without being told; the loader itself has one fixed path.
    linked = re.findall(r"(\S+) => (/\S+)", listing)
    found = {f"{kind.directory}/{name}": kind.here(path) for name, path in linked}
    found.update((path, kind.here(path)) for path in re.findall(r"^\s*(/\S+) \(", listing, re.MULTILINE))
    return found


class Template:
    """Programs and libraries, copied once and kept until one of their originals changes.

    `files` adds files to those of every device or replaces some: path on the device -> path here. The
    libraries of programs come along, and what starts the daemon if it is foreign.
    """

    def __init__(self, build: Path, files: Mapping[str, Path]):
        self._programs = {path: Path(os.path.realpath(path)) for path in FROM_HOST}
        self._programs.update((path, native_build(build) / name) for path, name in FROM_BUILD.items())
        self._programs.update(SCRIPTS)
        self._programs[DAEMON] = build / "zeloinstall"
        self._programs.update((path, Path(path)) for path in architecture(build / "zeloinstall").launcher)
        self._programs.update(files)
        kind = json.dumps({path: str(source) for path, source in sorted(self._programs.items())})
        self._tree = build / "device" / f"root-{hashlib.sha256(kind.encode()).hexdigest()[:8]}"
        self._stamp = self._tree.with_suffix(".json")
        self._lock = self._tree.with_suffix(".lock")

    def clone(self, root: Path) -> None:
        """Fills the new directory `root`."""
        with locked(self._lock):
            if not self._is_fresh():
                self._make()
        with locked(self._lock, fcntl.LOCK_SH):
            clone_tree(self._tree, root)
        (root / "tmp").chmod(0o1777)

    def _is_fresh(self) -> bool:
        try:
            states = json.loads(self._stamp.read_text())
            return all(state == _state(source) for source, state in states.items())
        except OSError:
            return False

    def _make(self) -> None:
        self._stamp.unlink(missing_ok=True)
        remove_tree(self._tree)
        for directory in DIRECTORIES:
            (self._tree / directory).mkdir(parents=True, exist_ok=True)
        for name, target in LINKS.items():
            (self._tree / name).symlink_to(target)

        files = dict(self._programs)
        for program in self._programs.values():
            files.update(libraries(program))
        for path, source in files.items():
            copy = self._tree / path.lstrip("/")
            copy.parent.mkdir(parents=True, exist_ok=True)
            shutil.copy(source, copy)
        self._stamp.write_text(json.dumps({str(source): _state(source) for source in files.values()}))


def _state(source: str | Path) -> list[int]:
    info = os.stat(source)
    return [info.st_size, info.st_mtime_ns]


def clone_tree(template: Path, root: Path) -> None:
    """Links the template's files into `root`; copies them where links are not possible."""
    for parent, directories, files in os.walk(template):
        target = root / Path(parent).relative_to(template)
        target.mkdir(parents=True, exist_ok=True)
        for name in directories + files:
            source = Path(parent, name)
            if source.is_symlink():
                (target / name).symlink_to(os.readlink(source))
            elif source.is_file():
                try:
                    os.link(source, target / name)
                except OSError:
                    shutil.copy(source, target / name)


def make_null_device(path: Path) -> None:
    """A /dev/null; a plain file does where the real one cannot be made or used."""
    try:
        os.mknod(path, 0o666 | stat.S_IFCHR, os.makedev(1, 3))
        path.write_bytes(b"x")
    except OSError:
        path.unlink(missing_ok=True)
        path.touch()
    path.chmod(0o666)


def remove_tree(path: Path) -> None:
    """Removes a directory, whatever modes a test left in it, but never through a mount."""
    mounted = [line.split()[4] for line in Path("/proc/self/mountinfo").read_text().splitlines()]
    if any(Path(point).is_relative_to(path) for point in mounted):
        raise OSError(f"{path}: a file system is mounted in it")

    def open_up(_function, name, _error) -> None:
        os.chmod(os.path.dirname(name), 0o700)
        if os.path.isdir(name) and not os.path.islink(name):
            os.chmod(name, 0o700)
            shutil.rmtree(name)
        elif os.path.lexists(name):
            os.unlink(name)

    if path.exists():
        shutil.rmtree(path, onerror=open_up)
