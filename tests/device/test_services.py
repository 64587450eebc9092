"""The services that the daemon needs: how they work with it, and what it does when they do not."""

import signal
from threading import Event

import pytest

from device import until
from device.cases import (BUNDLE_FAILED, END, LOST, RETRIES, STAGES, TIMEOUT, going_down, own_lines, script,
                          script_runs)
from device.https_server import Answer
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
    device.server.answer(ARCHIVE, Answer(event=Event()), Answer(device.published.archive))
    device.set_pref(RETRIES, "1")
    device.set_pref(TIMEOUT, "8")
    run = device.start()
    until(lambda: ARCHIVE in device.server.requests)
    device.transfers.stop()
    device.transfers.start()
    assert run.wait() == 0
    assert own_lines(device) == [*STAGES[:2], BUNDLE_FAILED + LOST, *STAGES[2:], END]
