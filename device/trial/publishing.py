"""Puts the author's bundle where the device downloads it."""

from argparse import Namespace
from pathlib import Path
from tempfile import TemporaryDirectory

from bundle_rules import check_bundle

from device.bundles import Bundle, pack
from device.cases import PROD
from device.trial.lines import show
from device.virtual_device import ARCHIVE, VirtualDevice


def publish(device: VirtualDevice, arguments: Namespace) -> None:
    if len(arguments.bundle) == 1:
        device.publish(pack(arguments.bundle[0], device.keys.private("prod"), device.url(ARCHIVE)))
        print("signed with a new key, which is on the device")
        return
    document, archive = arguments.bundle
    if not arguments.key:
        device.publish(device.sign(archive.read_bytes()))
        print("re-signed with a new key, which is on the device; your document is not used")
        return
    device.write(PROD, arguments.key.read_bytes())
    with TemporaryDirectory() as scratch:
        findings = check_bundle(document, archive, arguments.key, Path(scratch)).findings
    show("check-bundle", [f"{each.subject}: {each.severity}: {each.text}" for each in findings] or ["ok"])
    bundle = Bundle(archive.read_bytes(), document.read_bytes())
    # What devices refuse stays as it is, so that this one refuses it, too.
    if not any(each.severity == "error" and each.kind.startswith(("address", "document")) for each in findings):
        bundle = bundle.with_url(device.url(ARCHIVE))
        print("the document's address is replaced by that of the local server")
    device.publish(bundle)
