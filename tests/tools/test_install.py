"""What a device build is made of, and which version everything is."""

import os
import re
import subprocess
from pathlib import Path

ROOT = Path(__file__).resolve().parents[2]


def test_daemon_for_a_device(build: Path, tmp_path: Path) -> None:
    """Built against a library from elsewhere and its header, which is not ours."""
    library = build / "standin" / "libzelo_platform.so"
    header = build / "install" / "headers" / "platform" / "xfr.h"
    header.parent.mkdir(parents=True, exist_ok=True)
    ours = (ROOT / "platform" / "xfr.h").read_text()
    header.write_text(f'{ours}__asm__(".ident \\"from elsewhere\\"");\n')
    elsewhere = build / "install" / "device-build"  # kept: the next time builds only what has changed
    subprocess.run(["cmake", "-S", ROOT, "-B", elsewhere, "-G", "Ninja", "-DZELO_TESTS=OFF",
                    f"-DZELO_PLATFORM_LIBRARIES={library}", f"-DZELO_PLATFORM_HEADERS={header.parents[1]}"],
                   check=True)
    subprocess.run(["cmake", "--build", elsewhere], check=True)
    assert b"from elsewhere" in (elsewhere / "zeloinstall").read_bytes()
    subprocess.run(["cmake", "--install", elsewhere, "--prefix", "/usr", "--component", "daemon"], check=True,
                   env={**os.environ, "DESTDIR": str(tmp_path)})
    # A device has a place for the platform's libraries, and no other is searched.
    needed = subprocess.check_output(["ldd", tmp_path / "usr/sbin/zeloinstall"], text=True)
    assert re.findall(r"(\S+) => not found", needed) == ["libzelo_platform.so.1"]


def test_version_is_the_same_everywhere(build: Path) -> None:
    version = (ROOT / "VERSION").read_text().strip()
    notes = subprocess.check_output(["readelf", "--notes", build / "zeloinstall"], text=True)
    assert f'{{"type":"deb","name":"zeloinstall","version":"{version}"}}\n' in notes
    assert (ROOT / "CHANGELOG.md").read_text().startswith(f"# Changes\n\n## {version}\n")
    for page in (ROOT / "doc").glob("*.[158]"):
        assert f'\n.Os "zeloinstall {version}"\n' in page.read_text(), page
    says = subprocess.check_output([ROOT / "tools" / "make-bundle", "--version"], text=True)
    assert says == f"make-bundle {version}\n"
