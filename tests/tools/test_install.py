"""What a device build is made of, what `cmake --install` puts where, and which version that is."""

import os
import re
import subprocess
from pathlib import Path

ROOT = Path(__file__).resolve().parents[2]
PAGES = sorted((ROOT / "doc").glob("*.[158]"))


def install(build: Path, destination: Path, component: str) -> set[str]:
    """Installs under /usr of the directory, and names all files there."""
    subprocess.run(["cmake", "--install", build, "--prefix", "/usr", "--component", component], check=True,
                   env={**os.environ, "DESTDIR": str(destination)})
    return {path.name for path in destination.rglob("*") if not path.is_dir()}


def missing_libraries(daemon: Path) -> list[str]:
    listing = subprocess.run(["ldd", daemon], capture_output=True, text=True, check=True).stdout
    return re.findall(r"(\S+) => not found", listing)


def test_daemon_with_the_stand_in(build: Path, tmp_path: Path) -> None:
    install(build, tmp_path, "daemon")
    assert missing_libraries(tmp_path / "usr/sbin/zeloinstall") == []
    unit = (tmp_path / "usr/lib/systemd/system/zeloinstall.service").read_text()
    assert "\nExecStart=/usr/sbin/zeloinstall\n" in unit


def test_daemon_for_a_device(build: Path, tmp_path: Path) -> None:
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

    assert library.name not in "".join(install(elsewhere, tmp_path, "daemon"))
    # A device has a place for the platform's libraries, and no other is searched.
    assert missing_libraries(tmp_path / "usr/sbin/zeloinstall") == ["libzelo_platform.so.1"]


def test_tools(build: Path, tmp_path: Path) -> None:
    version = (ROOT / "VERSION").read_text()
    files = install(build, tmp_path, "tools")
    assert files > {"run.sh", "zelo-bundle.5", "zelo-check-bundle.1", "zelo-make-bundle.1"}
    for name in ("zelo-make-bundle", "zelo-check-bundle"):
        said = subprocess.check_output([tmp_path / "usr/bin" / name, "--version"], text=True)
        assert said == f"{name} {version}"


def test_version_is_the_same_everywhere(build: Path) -> None:
    version = (ROOT / "VERSION").read_text().strip()
    notes = subprocess.check_output(["readelf", "--notes", build / "zeloinstall"], text=True)
    assert f'{{"type":"deb","name":"zeloinstall","version":"{version}"}}\n' in notes
    assert (ROOT / "CHANGELOG.md").read_text().startswith(f"# Changes\n\n## {version}\n")
    for page in PAGES:
        assert f'\n.Os "zeloinstall {version}"\n' in page.read_text(), page
