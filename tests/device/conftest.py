"""Devices for the tests."""

from collections.abc import Iterator
from pathlib import Path

import pytest

from device.architecture import architecture, native_build
from device.demo import RETRIES, TIMEOUT
from device.gate import Gate
from device.virtual_device import VirtualDevice

RELEASE_LOG = "/usr/lib/release-log.so"


@pytest.fixture(scope="session")
def plain(build: Path) -> bool:
    """Whether the daemon runs as it is: not under an emulator, nor instrumented by a sanitizer."""
    daemon = build / "zeloinstall"
    instrumented = any(name in daemon.read_bytes() for name in (b"__asan_init", b"__tsan_init"))
    return not instrumented and not architecture(daemon).launcher


@pytest.fixture
def plain_only(plain: bool) -> None:
    if not plain:
        pytest.skip("an emulator or a sanitizer has needs of its own")


@pytest.fixture
def device(build: Path) -> Iterator[VirtualDevice]:
    """A device with a good bundle published, one attempt at each download, and the probes at hand."""
    probes = native_build(build) / "tests" / "device"
    files = {"/usr/bin/zelo-probe": probes / "zelo-probe", RELEASE_LOG: probes / "librelease_log.so"}
    with VirtualDevice(build, files) as device:
        device.set_pref(RETRIES, "0")
        device.set_pref(TIMEOUT, "20")
        device.publish(device.make_bundle())
        yield device


@pytest.fixture
def gate(device: VirtualDevice) -> Iterator[Gate]:
    with Gate(device) as gate:
        yield gate
