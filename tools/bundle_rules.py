"""What devices demand of a bundle, for the commands that make, check and try bundles.

An error is what a device fails at, or what must never be published; a warning is what works, but is risky
or sloppy.
"""

from pathlib import Path

from archive_rules import ARCHIVE, DOCUMENT, check_archive
from document_rules import check_address, check_document
from key_rules import check_signature, describe_key
from report import Finding, Report
from script_rules import SCRIPT

__all__ = ["ARCHIVE", "DOCUMENT", "SCRIPT", "Finding", "Report", "check_address", "check_archive",
           "check_bundle", "check_document", "check_signature", "describe_key"]


def check_bundle(document: Path, archive: Path, key: Path, scratch: Path) -> Report:
    """All the rules; `scratch/unpacked` then holds the archive's files, if they could be unpacked."""
    report = Report()
    signature = check_document(document, report)
    if describe_key(key, report) and signature is not None:
        check_signature(signature.encode(), document, archive, key, scratch, report)
    check_archive(archive, scratch / "unpacked", report)
    return report
