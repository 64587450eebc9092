"""Devices for the tests; the build directory comes from ZELO_BUILD_DIR."""

import os
import sys
from collections.abc import Iterator
from pathlib import Path

import pytest

ROOT = Path(__file__).resolve().parents[2]
sys.path.insert(0, str(ROOT))

from device.architecture import native_build  # noqa: E402
from device.demo import RETRIES, TIMEOUT  # noqa: E402
from device.virtual_device import VirtualDevice  # noqa: E402


@pytest.fixture(scope="session")
def build() -> Path:
    return Path(os.environ.get("ZELO_BUILD_DIR", ROOT / "build" / "release"))


@pytest.fixture
def device(build: Path) -> Iterator[VirtualDevice]:
    """A device with a good bundle published, one attempt at each download, and the probe at hand."""
    probe = native_build(build) / "tests" / "device" / "zelo-probe"
    with VirtualDevice(build, {"/usr/bin/zelo-probe": probe}) as device:
        device.set_pref(RETRIES, "0")
        device.set_pref(TIMEOUT, "20")
        device.publish(device.make_bundle())
        yield device
