"""What a build for a device is made of, what `cmake --install` puts where, and which version it says it is."""

import functools
import os
import re
import shutil
import subprocess
from collections.abc import Callable
from pathlib import Path

import pytest

ROOT = Path(__file__).resolve().parents[2]
BUILD = Path(os.environ.get("ZELO_BUILD_DIR", ROOT / "build" / "release"))
PLATFORM = BUILD / "standin" / "libzelo_platform.so"
HEADER = BUILD / "install" / "headers" / "platform" / "xfr.h"
DOCUMENTS = {"copyright", "changelog"}
DAEMON = {"sbin/zeloinstall", "lib/tmpfiles.d/zeloinstall.conf", "share/man/man8/zeloinstall.8",
          *(f"lib/systemd/system/zeloinstall.{kind}" for kind in ("service", "timer")),
          *(f"share/doc/zeloinstall/{name}" for name in DOCUMENTS | {"fleet.md"})}
TOOLS = {*(f"{place}{name}-bundle{end}" for name in ("make", "check") for place, end in (
             ("bin/zelo-", ""), ("share/man/man1/zelo-", ".1"), ("share/zelo-bundle-tools/", ""))),
         *(f"share/zelo-bundle-tools/{module.name}" for module in (ROOT / "tools").glob("*.py")),
         *(f"share/doc/zelo-bundle-tools/{name}" for name in DOCUMENTS)}


def host_build() -> Path:
    return BUILD


@functools.cache
def device_build() -> Path:
    """A build against libraries from elsewhere, one of which has a client with more members than ours."""
    build = BUILD / "install" / "device-build"
    HEADER.parent.mkdir(parents=True, exist_ok=True)
    before, member, after = (ROOT / "platform/xfr.h").read_text().rpartition("std::unique_ptr<State> state_;")
    HEADER.write_text(f"{before}{member} char more_[256];{after}")
    subprocess.run(["cmake", "-S", ROOT, "-B", build, "-G", "Ninja", f"-DZELO_PLATFORM_LIBRARIES={PLATFORM}",
                    f"-DZELO_PLATFORM_HEADERS={HEADER.parents[1]}", "-DZELO_TESTS=OFF"], check=True)
    subprocess.run(["cmake", "--build", build], check=True)
    return build


@pytest.mark.parametrize("make, component, files", [
    (device_build, "daemon", DAEMON),
    (host_build, "daemon", DAEMON | {f"lib/zeloinstall/libzelo_platform.so.1{end}" for end in ("", ".0.0")}),
    (host_build, "tools", TOOLS),
])
def test_installed_files(make: Callable[[], Path], component: str, files: set[str]) -> None:
    build = make()
    destination = BUILD / "install" / "root"
    shutil.rmtree(destination, ignore_errors=True)
    subprocess.run(["cmake", "--install", build, "--prefix", "/usr", "--component", component], check=True,
                   env={**os.environ, "DESTDIR": str(destination)})
    found = {str(path.relative_to(destination)) for path in destination.rglob("*") if not path.is_dir()}
    # A build that was configured for /usr has its libraries in the multiarch directory.
    assert {re.sub(r"/\w+-linux-\w+/", "/", path) for path in found} == {f"usr/{name}" for name in files}
    if component == "daemon":
        unit = (destination / "usr/lib/systemd/system/zeloinstall.service").read_text()
        assert "\nExecStart=/usr/sbin/zeloinstall\n" in unit
        # A device has its own place for the platform's libraries, and no other is searched.
        daemon = destination / "usr/sbin/zeloinstall"
        listing = subprocess.run(["ldd", daemon], capture_output=True, text=True, check=True).stdout
        assert ("not found" in listing) == (make == device_build), listing


def test_device_build_has_the_makers_header_and_a_build_type() -> None:
    build = device_build()
    listing = subprocess.check_output(["ninja", "-C", build, "-t", "deps"], text=True)
    included = {Path(line.strip()) for line in listing.splitlines()}
    assert HEADER in included and ROOT / "platform/kbus.h" in included
    assert ROOT / "platform/xfr.h" not in included
    assert "\nCMAKE_BUILD_TYPE:STRING=RelWithDebInfo\n" in (build / "CMakeCache.txt").read_text()


def test_version_is_the_same_everywhere() -> None:
    cache = (BUILD / "CMakeCache.txt").read_text()
    version = re.findall(r"CMAKE_PROJECT_VERSION:\w+=(.+)", cache)[0]
    notes = subprocess.check_output(["readelf", "--notes", BUILD / "zeloinstall"], text=True)
    assert f'{{"type":"deb","name":"zeloinstall","version":"{version}"}}\n' in notes
    assert (ROOT / "CHANGELOG.md").read_text().startswith(f"# Changes\n\n## {version}\n")
    for page in (ROOT / "doc").glob("*.[1-8]"):
        assert f'\n.Os "zeloinstall {version}"\n' in page.read_text(), page
