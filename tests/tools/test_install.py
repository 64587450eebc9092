"""What `cmake --install` puts where, and that it runs from there."""

import os
import re
import shutil
import subprocess
from pathlib import Path

import pytest

from device.virtual_device import VirtualDevice

ROOT = Path(__file__).resolve().parents[2]
BUILD = Path(os.environ.get("ZELO_BUILD_DIR", ROOT / "build" / "release"))
PLATFORM = BUILD / "standin" / "libzelo_platform.so"
ALWAYS = {"sbin/zeloinstall", "lib/systemd/system/zeloinstall.service", "share/man/man8/zeloinstall.8",
          "share/doc/zeloinstall/README.md"}


def device_build() -> Path:
    """A build against libraries from elsewhere; kept, so that the next test builds only what has changed."""
    build = BUILD / "install" / "device-build"
    subprocess.run(["cmake", "-S", ROOT, "-B", build, "-G", "Ninja", "-DCMAKE_BUILD_TYPE=RelWithDebInfo",
                    f"-DZELO_PLATFORM_LIBRARIES={PLATFORM}", "-DZELO_TESTS=OFF"], check=True)
    subprocess.run(["cmake", "--build", build], check=True)
    return build


@pytest.mark.parametrize("make, more", [
    (device_build, set()),
    (lambda: BUILD, {"lib/libzelo_platform.so.1", "lib/libzelo_platform.so.1.0.0"}),
], ids=["device", "host"])
def test_installed_daemon(make, more: set[str], monkeypatch: pytest.MonkeyPatch) -> None:
    build = make()
    destination = BUILD / "install" / "root"
    shutil.rmtree(destination, ignore_errors=True)
    subprocess.run(["cmake", "--install", build, "--prefix", "/usr"], check=True,
                   env={**os.environ, "DESTDIR": str(destination)})

    tree = destination / "usr"
    found = {str(path.relative_to(destination)) for path in destination.rglob("*") if not path.is_dir()}
    # A build that was configured for /usr has its libraries in the multiarch directory.
    assert {re.sub(r"/\w+-linux-\w+/", "/", path) for path in found} == {f"usr/{name}" for name in ALWAYS | more}

    unit = (tree / "lib/systemd/system/zeloinstall.service").read_text()
    assert "\nExecStart=/usr/sbin/zeloinstall\n" in unit and "\nKillMode=mixed\n" in unit
    daemon = tree / "sbin/zeloinstall"
    dynamic = subprocess.run(["readelf", "-d", daemon], capture_output=True, text=True, check=True).stdout
    assert "PATH)" not in dynamic and "libzelo_platform.so.1" in dynamic

    # Where the loader is to look when the device's root is filled; the device has its own place.
    libraries = {path.parent for path in tree.rglob("lib*.so.1")} or {PLATFORM.parent}
    monkeypatch.setenv("LD_LIBRARY_PATH", str(libraries.pop()))
    with VirtualDevice(BUILD, {"/usr/sbin/zeloinstall": daemon}) as device:
        device.publish(device.make_bundle())
        run = device.start()
        assert run.wait() == 0, run.output()
        assert device.path("/tmp/installed").read_text() == "installed\n"
