"""The words of the tests: the lines that the daemon logs, and what can be changed about a device."""

import io
import json
import re
import tarfile

from device.https_server import Content
from device.virtual_device import DOCUMENT, VirtualDevice

STAGES = [f"I def:zeloinstall:main:{stage}" for stage in (
    "Downloading metadata", "Downloading bundle", "Validating bundle", "Extracting bundle",
    "Running installer")]
METADATA_FAILED = "W def:zeloinstall:ZeloInstallerBundleMetadata:metadata download failed due to "
BUNDLE_FAILED = "W def:zeloinstall:ZeloInstallerBundleMetadata:bundle download failed due to "
DEV_REFUSED = "E def:zeloinstall:zeloinstallerbundle:validation failed against dev key due to "
NO_COMMAND = "failed to execute command"
LOST = "download failed"
NOT_TAKEN = "initiating download failed"
ANOTHER = "I def:zeloinstall:main:one more instance of zeloinstall is running. Exiting"
REFUSED = "http/loopback address not allowed"

PROD = "/etc/zelo/pubkeyprod.pem"
AUTHORITIES = "/etc/ssl/certs/ca-certificates.crt"
SET_PROP, SEND_EVENT = "/usr/bin/kbus-set-prop", "/usr/bin/kbus-send-event"


def going_down(signum: int) -> str:
    return f"I def:zeloinstall:signum={signum}:We're going down..."


END = going_down(0)


def defaulted(key: str) -> str:
    return f"W def:zeloinstall:zeloutils:{key} key does not exist in prefbox"


def reported(message: str, code: str) -> str:
    return f"E def:zeloinstall:zeloutils:zelo exception: {message}. code={code}"


def lines_of(device: VirtualDevice) -> list[str]:
    """The log without what the transfers and the bus say for themselves."""
    return [line for line in device.log_lines() if not re.match("[IW] TransferWrapper:|kbus: ", line)]


def ended(reason: str) -> str:
    return f"E def:zeloinstall:main:ending with status 1: {reason}"


def answer(path: str, *answers):
    return lambda d: d.server.answer(path, *answers)


def document(**members: str):
    return answer(DOCUMENT, Content(json.dumps(members).encode()))


def bundle_address(url: str):
    return lambda d: d.publish(d.make_bundle().with_url(url))


def script(text: str):
    return lambda d: d.publish(d.make_bundle(script=text))


def tool(path: str, text: str | None):
    """Replaces a program by a script, or removes it."""
    return lambda d: d.path(path).unlink() if text is None else d.write(path, f"#!/bin/sh\n{text}\n", 0o755)


def directory(path: str):
    """Puts a directory in the place of a file."""
    return lambda d: [d.path(path).unlink(missing_ok=True), d.path(path).mkdir()]


def key_file(path: str, name: str | None):
    return lambda d: d.path(path).unlink() if name is None else d.install_key(path, name)


def archive(*members: tuple[str, int, bytes]):
    """A signed archive of members (name, mode, content)."""
    def change(d: VirtualDevice) -> None:
        packed = io.BytesIO()
        with tarfile.open(mode="w:gz", fileobj=packed) as tar:
            for name, mode, content in members:
                member = tarfile.TarInfo(name)
                member.mode, member.size = mode, len(content)
                tar.addfile(member, io.BytesIO(content))
        d.publish(d.sign(packed.getvalue()))
    return change


def both(*changes):
    return lambda d: [change(d) for change in changes]


def setting(key: str, value: str | None):
    return lambda d: d.set_pref(key, value)


def other_authority(d: VirtualDevice) -> None:
    d.write(AUTHORITIES, d.keys.server("other.example")[0])
