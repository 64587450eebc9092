"""Puts the author's bundle where the device downloads it."""

from argparse import Namespace

from bundle_rules import Report, why_refused
from check_bundle import check_bundle

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
    report = Report()
    check_bundle(document, archive, arguments.key, report)
    findings = [f"{each.subject}: {each.severity}: {each.text}" for each in report.findings]
    show("check-bundle", findings or ["ok"])
    bundle = Bundle(archive.read_bytes(), document.read_bytes())
    # What devices refuse stays as it is, so that this one refuses it, too.
    address = report.facts.get("address")
    if address and not why_refused(address):
        bundle = bundle.with_url(device.url(ARCHIVE))
        print("the document's address is replaced by that of the local server")
    device.publish(bundle)
