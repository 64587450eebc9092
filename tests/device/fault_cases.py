"""One case for each line and code that a run can end with, by what is changed about the device.

A device takes at most one change of each kind, in the order of the kinds.
"""

from device.bundles import RECORD
from device.cases import (BUNDLE_FAILED, DEV_REFUSED, END, LOST, METADATA_FAILED, NO_COMMAND, NOBODY,
                          NOT_TAKEN, PROD, RETRIES, SEND_EVENT, SET_PROP, STAGES, TEMPLATE, TIMEOUT, Case,
                          Change, answer, archive, together, failing, fatal, good, key_file, marker, members,
                          other_authority, reported, script, setting, signed, tool)
from device.https_server import Content, Drop, Stall, Status
from device.virtual_device import ARCHIVE, DOCUMENT, MARKER, VirtualDevice


def cut_archive(d: VirtualDevice) -> None:
    d.publish(d.sign(d.make_bundle(files={"data": bytes(range(256)) * 9}).archive[:-40]))


def unfetched(name: str, change: Change, message: str = LOST) -> Case:
    return failing(name, change, 1, message, "02", METADATA_FAILED + message)


def refused(name: str, change: Change, message: str = NO_COMMAND, *warnings: str) -> Case:
    return failing(name, change, 3, message, "00", *warnings)


def untold(name: str, change: Change, *shown: str) -> Case:
    """Nobody serves the address that is configured, and `change` breaks the telling of it."""
    return fatal(name, together(setting(TEMPLATE, NOBODY), change), 1, NO_COMMAND, METADATA_FAILED + LOST,
                 reported(LOST, "02"), shown=shown)


KINDS = {
    "archive": [
        failing("not compressed", archive("run.sh", packing=""), 4, NO_COMMAND, "01"),
        failing("cut short", cut_archive, 4, NO_COMMAND, "01"),
        failing("run.sh further down", archive("d/run.sh"), 5, NO_COMMAND, "03"),
        failing("run.sh not executable", archive("run.sh", 0o644), 5, NO_COMMAND, "03"),
        failing("no interpreter", archive("run.sh", content=f"#!/bin/missing\n{RECORD}\n"), 5, NO_COMMAND,
                "03"),
        failing("run.sh ends with status 255", script(f"{RECORD}; exit 255"), 5, NO_COMMAND, "03",
                script_runs=1),
        good("run.sh ended by a signal", script(f"{RECORD}; kill -9 $$")),
    ],
    "document": [
        failing("no url, twice", together(members(url=None), setting(RETRIES, "1")), 1, "key url not found", "02",
                *[METADATA_FAILED + "key url not found"] * 2),
        unfetched("no signature", members(signature=None), "key signature not found"),
        failing("address refused at once", together(members(url="https://LocalHost/b"), setting(RETRIES, "3")), 1,
                "http/loopback address not allowed", "02"),
    ],
    "metadata": [
        unfetched("document missing", answer(DOCUMENT, Status(404))),
        unfetched("no JSON", answer(DOCUMENT, Content(b"hello")), "invalid json hello"),
        unfetched("empty document", answer(DOCUMENT, Content(b"")), "invalid json "),
    ],
    "bundle": [
        failing("bundle missing", answer(ARCHIVE, Status(404)), 2, LOST, "02", BUNDLE_FAILED + LOST),
        failing("bundle cut short", answer(ARCHIVE, Drop(b"abc")), 2, LOST, "02", BUNDLE_FAILED + LOST),
    ],
    "time limit": [
        fatal("time limit out of range", setting(TIMEOUT, "99999999999"), 1, "stoi"),
        good("longest time limit", setting(TIMEOUT, "2147483647")),
        unfetched("time limit passed at once", setting(TIMEOUT, "-1")),
        unfetched("document too late", together(setting(TIMEOUT, "1"), answer(DOCUMENT, Stall()))),
        failing("bundle too late", together(setting(TIMEOUT, "5"), answer(ARCHIVE, Stall())), 2, LOST, "02",
                BUNDLE_FAILED + LOST),
    ],
    "transfers": [
        unfetched("deferred", lambda d: d.defer_transfers(5)),
        Case("no transfer service", lambda d: d.transfers.stop(), [
            "E def:TransferServiceWrapper:Transfer Service initialization failed:", STAGES[0],
            METADATA_FAILED + NOT_TAKEN, reported(NOT_TAKEN, "02"), END], 0, ("load = zelo", "showError 02")),
    ],
    "authority": [unfetched("unknown authority", other_authority)],
    "address": [
        failing("no template", setting(TEMPLATE, None), 1, "key does not exist", "99"),
        failing("template with %d", setting(TEMPLATE, "https://bundles.zelo.example/%d"), 1,
                "invalid metadata url template", "99"),
    ],
    "openssl": [
        refused("no openssl", tool("/usr/bin/openssl", None)),
        refused("openssl says no more", tool("/usr/bin/openssl", "printf 'Verified OK'"), "Verified OK"),
        refused("openssl says more", tool("/usr/bin/openssl", "echo Verified OK; echo"), "Verified OK\n\n"),
        refused("openssl ended by a signal", tool("/usr/bin/openssl", "kill -9 $$"), ""),
    ],
    "decoder": [refused("no decoder", tool("/bin/base64", None))],
    "tar": [
        failing("no tar", tool("/bin/tar", None), 4, NO_COMMAND, "01"),
        failing("tar ended by a signal", tool("/bin/tar", "kill -9 $$"), 5, NO_COMMAND, "03"),
    ],
    "telling": [
        untold("property tool fails", tool(SET_PROP, "exit 1")),
        untold("no UI shell", lambda d: d.shell.stop()),
        untold("event tool fails", tool(SEND_EVENT, "exit 1"), "load = zelo"),
    ],
}

SIGNATURES = [
    refused("no base64", members(signature="!")),
    refused("empty signature", members(signature="")),
    refused("stranger's signature", signed("stranger")),
    refused("no production key", key_file(PROD, None)),
    refused("foreign production key", key_file(PROD, "stranger")),
    refused("both keys refuse", together(marker, signed("stranger")), NO_COMMAND, DEV_REFUSED + NO_COMMAND),
    good("marker a directory", together(lambda d: d.path(MARKER).mkdir(), signed("dev"))),
]

STARTS = [
    fatal("no bus", lambda d: d.path("/run/kbus.sock").unlink(), 0, "Failed to initialize kbus handle"),
    fatal("neither /tmp nor bus", together(lambda d: d.path("/tmp").rmdir(), lambda d: d.path("/run/kbus.sock").unlink()),
          0, "unable to create temp directory. errno 2"),
]
