"""Devices for the tests."""

from collections.abc import Iterator
from pathlib import Path

import pytest

from device import alone
from device.architecture import architecture
from device.cases import ready_device
from device.gate import Gate
from device.virtual_device import VirtualDevice


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
def confined_only() -> None:
    if not alone.confined():
        pytest.skip("no namespaces are allowed here")


@pytest.fixture
def device(build: Path) -> Iterator[VirtualDevice]:
    with ready_device(build) as device:
        yield device


@pytest.fixture
def gate(device: VirtualDevice) -> Gate:
    return Gate(device)
