"""Cases of whole runs that the demo does not show, in the order in which a run comes to them."""

from device.bundles import RECORD
from device.cases import (BUNDLE_FAILED, DEV_REFUSED, END, LOST, METADATA_FAILED, NO_COMMAND, NOBODY,
                          NOT_TAKEN, RETRIES, SEND_EVENT, SET_PROP, STAGES, TEMPLATE, TIMEOUT, Case,
                          Change, answer, archive, failing, fatal, good, marker, members, reported, script,
                          setting, signed, together, tool)
from device.https_server import Answer
from device.virtual_device import ARCHIVE, DOCUMENT, MARKER, VirtualDevice


def no_bus(d: VirtualDevice) -> None:
    d.path("/run/kbus.sock").unlink()


def unfetched(name: str, change: Change, message: str = LOST) -> Case:
    return failing(name, change, 1, message, "02", METADATA_FAILED + message)


def refused(name: str, change: Change, message: str = NO_COMMAND, *warnings: str) -> Case:
    return failing(name, change, 3, message, "00", *warnings)


def untold(name: str, change: Change, *shown: str) -> Case:
    """Nobody serves the address that is configured, and `change` breaks the telling of it."""
    return fatal(name, together(setting(TEMPLATE, NOBODY), change), 1, NO_COMMAND, METADATA_FAILED + LOST,
                 reported(LOST, "02"), shown=shown)


CASES = [
    fatal("no bus", no_bus, 0, "Failed to initialize kbus handle"),
    fatal("neither /tmp nor bus", together(lambda d: d.path("/tmp").rmdir(), no_bus), 0,
          "unable to create temp directory. errno 2"),
    Case("no transfer service", lambda d: d.transfers.stop(), [
        "E def:TransferServiceWrapper:Transfer Service initialization failed:", STAGES[0],
        METADATA_FAILED + NOT_TAKEN, reported(NOT_TAKEN, "02"), END], 0, ("load = zelo", "showError 02")),
    unfetched("put off for too long", together(setting(TIMEOUT, "1"), lambda d: d.defer_transfers(9))),
    unfetched("no JSON", answer(DOCUMENT, Answer(b"hello")), "invalid json hello"),
    unfetched("no signature", members(signature=None), "key signature not found"),
    failing("no url, twice", together(members(url=None), setting(RETRIES, "1")), 1, "key url not found", "02",
            *[METADATA_FAILED + "key url not found"] * 2),
    failing("bundle missing", answer(ARCHIVE, Answer(status=404)), 2, LOST, "02", BUNDLE_FAILED + LOST),
    refused("no decoder", tool("/bin/base64", None)),
    refused("openssl says no more", tool("/usr/bin/openssl", "printf 'Verified OK'"), "Verified OK"),
    refused("openssl says more", tool("/usr/bin/openssl", "echo Verified OK; echo"), "Verified OK\n\n"),
    refused("openssl ended by a signal", tool("/usr/bin/openssl", "kill -9 $$"), ""),
    refused("both keys refuse", together(marker, signed("stranger")), NO_COMMAND, DEV_REFUSED + NO_COMMAND),
    good("marker a directory", together(lambda d: d.path(MARKER).mkdir(), signed("dev"))),
    failing("no tar", tool("/bin/tar", None), 4, NO_COMMAND, "01"),
    failing("run.sh not executable", archive(mode=0o644), 5, NO_COMMAND, "03"),
    good("run.sh ended by a signal", script(f"{RECORD}; kill -9 $$")),
    untold("property tool fails", tool(SET_PROP, "exit 1")),
    untold("event tool fails", tool(SEND_EVENT, "exit 1"), "load = zelo"),
]
