"""Devices for the tests."""

from collections.abc import Iterator
from pathlib import Path

import pytest

from device import alone
from device.architecture import architecture
from device.cases import ready_device
from device.gate import Gate
from device.virtual_device import VirtualDevice


@pytest.fixture
def plain_only(build: Path) -> None:
    daemon = build / "zeloinstall"
    instrumented = any(name in daemon.read_bytes() for name in (b"__asan_init", b"__tsan_init"))
    if instrumented or architecture(daemon).launcher:
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
