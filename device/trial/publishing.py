"""Puts the author's bundle where the device downloads it."""

import os
import subprocess
import textwrap
from argparse import Namespace
from pathlib import Path

from bundle_rules import Report, check_document

from device.bundles import TOOL, Bundle, pack
from device.cases import PROD
from device.virtual_device import ARCHIVE, VirtualDevice

CHECKER = TOOL.with_name("check-bundle")


def publish(device: VirtualDevice, arguments: Namespace) -> None:
    if len(arguments.bundle) == 1:
        device.publish(pack(arguments.bundle[0], device.keys.private("prod"), device.url(ARCHIVE)))
        print("signed with a new key, which is on the device")
        return
    document, archive = (path.read_bytes() for path in arguments.bundle)
    if not arguments.key:
        device.publish(device.sign(archive))
        print("re-signed with a new key, which is on the device; your document is not used")
        return
    device.write(PROD, arguments.key.read_bytes())
    bundle = Bundle(archive, document)
    check = [CHECKER, *arguments.bundle, arguments.key]
    checked = subprocess.run(check, stdout=subprocess.PIPE, check=False).stdout
    print("check-bundle:\n" + textwrap.indent(os.fsdecode(checked), "  "), end="")
    # What devices refuse stays as it is, so that this one does too.
    if not refused(arguments.bundle[0]):
        bundle = bundle.with_url(device.url(ARCHIVE))
        print("the document's address is replaced by that of the local server")
    device.publish(bundle)


def refused(document: Path) -> bool:
    """Whether devices download nothing for this document."""
    report = Report()
    check_document(document, report)
    return report.has_error()
