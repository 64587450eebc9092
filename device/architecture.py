"""What the daemon was built for: this machine, or 32-bit ARM, which runs here under an emulator.

Only the daemon is foreign then. The programs that it starts are this machine's, and the emulator starts
them like any other program.
"""

from dataclasses import dataclass
from pathlib import Path


@dataclass(frozen=True)
class Architecture:
    launcher: tuple[str, ...]  # what starts a program
    ldd: tuple[str, ...]  # what lists a program's libraries
    sysroot: str  # where the libraries are here
    directory: str  # where they are on the device; each architecture's loader searches its own

    def here(self, path: str) -> Path:
        """Where a library of the list is on this machine; those that were built here are not in the sysroot."""
        inside = Path(self.sysroot + path)
        return inside if inside.exists() else Path(path)


_EMULATOR = "/usr/bin/qemu-arm"
_SYSROOT = str(Path(__file__).resolve().parents[1] / "build" / "armhf-sysroot")
_NATIVE = Architecture((), ("ldd",), "", "/usr/lib")
_ARM = Architecture((_EMULATOR,), (_EMULATOR, "-L", _SYSROOT, "-E", "LD_TRACE_LOADED_OBJECTS=1"), _SYSROOT,
                    "/usr/lib/arm-linux-gnueabihf")
_ARM_MACHINE = 40


def architecture(program: Path) -> Architecture:
    """The architecture of a program; also this machine's for what the kernel starts otherwise."""
    return _ARM if _machine(program) == _ARM_MACHINE != _machine(Path("/bin/sh")) else _NATIVE


def native_build(build: Path) -> Path:
    """The build directory of this machine's programs that go with the daemon of `build`."""
    return build if architecture(build / "zeloinstall") is _NATIVE else build.with_name("release")


def _machine(program: Path) -> int | None:
    with open(program, "rb") as file:
        header = file.read(20)
    return int.from_bytes(header[18:], "little") if header.startswith(b"\x7fELF") else None
