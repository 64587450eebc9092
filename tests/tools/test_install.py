"""What a device build is made of, what `cmake --install` puts where, and which version that is."""

import os
import re
import shutil
import subprocess
from pathlib import Path

import pytest

ROOT = Path(__file__).resolve().parents[2]
PAGES = sorted((ROOT / "doc").glob("*.[158]"))
DAEMON = {
    "lib/systemd/system/zeloinstall.service",
    "lib/systemd/system/zeloinstall.timer",
    "lib/tmpfiles.d/zeloinstall.conf",
    "sbin/zeloinstall",
    "share/doc/zeloinstall/changelog",
    "share/doc/zeloinstall/copyright",
    "share/doc/zeloinstall/fleet.md",
    "share/man/man8/zeloinstall.8",
}
STANDIN = {
    "lib/zeloinstall/libzelo_platform.so.1",
    "lib/zeloinstall/libzelo_platform.so.1.0.0",
}


@pytest.fixture
def installed(build: Path) -> Path:
    """Where the tests install to."""
    directory = build / "install" / "root"
    shutil.rmtree(directory, ignore_errors=True)
    return directory


def install(build: Path, destination: Path, component: str) -> set[str]:
    """The files that are installed under /usr."""
    subprocess.run(["cmake", "--install", build, "--prefix", "/usr", "--component", component], check=True,
                   env={**os.environ, "DESTDIR": str(destination)})
    files = {str(path.relative_to(destination / "usr")) for path in destination.rglob("*")
             if not path.is_dir()}
    # A build that was configured for /usr has its libraries in the multiarch directory.
    return {re.sub(r"/\w+-linux-\w+/", "/", file) for file in files}


def missing_libraries(daemon: Path) -> list[str]:
    listing = subprocess.run(["ldd", daemon], capture_output=True, text=True, check=True).stdout
    return re.findall(r"(\S+) => not found", listing)


def test_daemon_with_the_stand_in(build: Path, installed: Path) -> None:
    assert install(build, installed, "daemon") == DAEMON | STANDIN
    assert missing_libraries(installed / "usr/sbin/zeloinstall") == []
    unit = (installed / "usr/lib/systemd/system/zeloinstall.service").read_text()
    assert "\nExecStart=/usr/sbin/zeloinstall\n" in unit


def test_daemon_for_a_device(build: Path, installed: Path) -> None:
    """Built against a library from elsewhere and its maker's header, whose client has more members than ours."""
    library = build / "standin" / "libzelo_platform.so"
    header = build / "install" / "headers" / "platform" / "xfr.h"
    header.parent.mkdir(parents=True, exist_ok=True)
    ours = ROOT / "platform" / "xfr.h"
    before, member, after = ours.read_text().rpartition("std::unique_ptr<State> state_;")
    header.write_text(f"{before}{member} char more_[256];{after}")
    elsewhere = build / "install" / "device-build"  # kept: the next time builds only what has changed
    subprocess.run(["cmake", "-S", ROOT, "-B", elsewhere, "-G", "Ninja", "-DZELO_TESTS=OFF",
                    f"-DZELO_PLATFORM_LIBRARIES={library}", f"-DZELO_PLATFORM_HEADERS={header.parents[1]}"],
                   check=True)
    subprocess.run(["cmake", "--build", elsewhere], check=True)
    listing = subprocess.check_output(["ninja", "-C", elsewhere, "-t", "deps"], text=True)
    included = {Path(line.strip()) for line in listing.splitlines()}
    assert {header, ROOT / "platform" / "kbus.h"} <= included
    assert ours not in included
    assert "\nCMAKE_BUILD_TYPE:STRING=RelWithDebInfo\n" in (elsewhere / "CMakeCache.txt").read_text()

    assert install(elsewhere, installed, "daemon") == DAEMON
    # A device has a place for the platform's libraries, and no other is searched.
    assert missing_libraries(installed / "usr/sbin/zeloinstall") == ["libzelo_platform.so.1"]


def test_tools(build: Path, installed: Path) -> None:
    version = (ROOT / "VERSION").read_text()
    files = install(build, installed, "tools")
    assert "share/doc/zelo-bundle-tools/examples/run.sh" in files
    for name in ("zelo-make-bundle", "zelo-check-bundle"):
        said = subprocess.check_output([installed / "usr/bin" / name, "--version"], text=True)
        assert said == f"{name} {version}"
    assert {file for file in files if "/man/" in file} == {
        "share/man/man1/zelo-check-bundle.1", "share/man/man1/zelo-make-bundle.1",
        "share/man/man5/zelo-bundle.5"}


def test_version_is_the_same_everywhere(build: Path) -> None:
    version = (ROOT / "VERSION").read_text().strip()
    notes = subprocess.check_output(["readelf", "--notes", build / "zeloinstall"], text=True)
    assert f'{{"type":"deb","name":"zeloinstall","version":"{version}"}}\n' in notes
    assert (ROOT / "CHANGELOG.md").read_text().startswith(f"# Changes\n\n## {version}\n")
    for page in PAGES:
        assert f'\n.Os "zeloinstall {version}"\n' in page.read_text(), page
