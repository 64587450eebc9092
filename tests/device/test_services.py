"""The services that the daemon needs: how they work with it, and what it does when they do not."""

import os
import signal
from pathlib import Path

import pytest

from device.cases import (BUNDLE_FAILED, END, LOST, RETRIES, SEND_EVENT, SET_PROP, STAGES, TIMEOUT, ended,
                          going_down, own_lines, script, script_runs)
from device.gate import until
from device.https_server import Content, Stall
from device.virtual_device import ARCHIVE, VirtualDevice


@pytest.mark.usefixtures("confined_only")
def test_daemon_opens_no_connection(device: VirtualDevice) -> None:
    """It installs from where there is no network."""
    run = device.start(prefix=["/usr/bin/unshare", "--net"])
    assert run.wait() == 0
    assert own_lines(device) == [*STAGES, END]
    assert script_runs(device) == 1


@pytest.mark.usefixtures("confined_only")
def test_first_process_of_a_container(device: VirtualDevice) -> None:
    """Signals have no default action there: its exit status tells which one ended it."""
    script("kill -TERM $PPID")(device)
    run = device.start(prefix=["/usr/bin/unshare", "--pid", "--fork"])
    assert run.wait() == 128 + signal.SIGTERM
    assert own_lines(device) == [*STAGES, going_down(signal.SIGTERM)]


def test_transfer_service_dies(device: VirtualDevice) -> None:
    """The attempt ends at its time limit, and the next finds the service that is back."""
    bundle = device.make_bundle()
    device.server.answer(ARCHIVE, Stall(), Content(bundle.archive))
    device.set_pref(RETRIES, "1")
    device.set_pref(TIMEOUT, "8")
    run = device.start()
    until(lambda: ARCHIVE in device.server.requests)
    device.restart_transfers()
    assert run.wait() == 0
    assert own_lines(device) == [*STAGES[:2], BUNDLE_FAILED + LOST, *STAGES[2:], END]


def test_download_ends_with_its_client(device: VirtualDevice) -> None:
    service = device.transfers.process.pid
    children = Path(f"/proc/{service}/task/{service}/children")
    device.server.answer(ARCHIVE, Stall())
    run = device.start()
    until(lambda: ARCHIVE in device.server.requests)
    assert len(children.read_text().split()) == 1
    run.stop()
    until(lambda: not children.read_text())


def test_bus_that_never_answers(device: VirtualDevice) -> None:
    os.kill(device.bus.process.pid, signal.SIGSTOP)
    run = device.start()
    tools = [device.popen([SET_PROP, "com.qorvex.vestrel", "load", "zelo"]),
             device.popen([SEND_EVENT, "com.qorvex.vestrel.zelo", "showError", "-s", "00"])]
    assert [run.wait(), *[tool.wait() for tool in tools]] == [1, 1, 1]
    os.kill(device.bus.process.pid, signal.SIGCONT)
    assert own_lines(device) == [ended("Failed to initialize kbus handle")]
