"""Checks a bundle before it is published: does what a device will do with it, and looks for risks."""

import argparse
from pathlib import Path

from archive_rules import check_archive
from bundle_rules import Report, check_document, check_key, check_signature
from command import version
from scratch import scratch_directory


def parse_arguments() -> argparse.Namespace:
    parser = argparse.ArgumentParser(
        description=__doc__,
        epilog="Prints a line for each finding: an error makes devices fail or gives a key away, a warning "
        "does not. Exit status: 0 no error, 1 errors, 2 wrong usage, or the check could not be made.")
    parser.add_argument("document", metavar="DOCUMENT", type=Path, help="the metadata document (JSON)")
    parser.add_argument("archive", metavar="ARCHIVE", type=Path, help="the bundle's archive (.tar.gz)")
    parser.add_argument("key", metavar="PUBLIC_KEY", type=Path,
                        help="public key (PEM) that is installed on the devices")
    parser.add_argument("--strict", action="store_true", help="warnings count like errors")
    parser.add_argument("--info", action="store_true", help="also print what the bundle contains and needs")
    parser.add_argument("--version", action="version", version=version())
    return parser.parse_args()


def check_bundle(document: Path, archive: Path, key: Path, report: Report) -> None:
    with scratch_directory() as scratch:
        signature = check_document(document, report)
        if check_key(key, report) and signature is not None:
            check_signature(signature, document, archive, key, scratch, report)
        check_archive(archive, scratch / "unpacked", report)


def main() -> int:
    arguments = parse_arguments()
    report = Report()
    check_bundle(arguments.document, arguments.archive, arguments.key, report)
    for finding in report.findings:
        print(f"{finding.subject}: {finding.severity}: {finding.text}")
    if arguments.info:
        for name, value in report.facts.items():
            print(f"{name}: {value}")
    if report.has_error() or (arguments.strict and report.findings):
        return 1
    print(f"{arguments.archive}: ok")
    return 0
