"""Makes an installer bundle: the archive, its signature and the metadata document that names both."""

import argparse
import base64
import json
import os
import shlex
import sys
from pathlib import Path

from archive_rules import ARCHIVE, DOCUMENT, check_archive
from bundle_rules import Report, check_address, check_key, check_signature
from command import NAME, Failure, version
from programs import complaint, run
from scratch import scratch_directory, signals_wait
from script_rules import SCRIPT
from signing import PrivateKey, sign_with_command


def parse_arguments() -> argparse.Namespace:
    parser = argparse.ArgumentParser(
        description=__doc__,
        epilog=f"Writes {ARCHIVE} and {DOCUMENT} into the output directory, or nothing and the reasons on "
        "standard error. Exit status: 0 done, 1 the bundle cannot be made, 2 wrong usage.")
    parser.add_argument("source", metavar="SOURCE_DIR", type=Path,
                        help=f"directory with the bundle's files, including an executable {SCRIPT}")
    signer = parser.add_mutually_exclusive_group(required=True)
    signer.add_argument("--key", type=Path, help="private key (PEM; RSA or EC) that signs the bundle")
    signer.add_argument("--sign-command", metavar="CMD", type=shlex.split,
                        help="command that signs the bundle: it gets the archive's path as its last argument "
                        "and prints the raw signature (of the SHA-256)")
    parser.add_argument("--passphrase-file", metavar="FILE", type=Path,
                        help="file with the passphrase of --key (default: ask on the terminal)")
    verifier = parser.add_mutually_exclusive_group()
    verifier.add_argument("--public-key", metavar="FILE", type=Path,
                          help="public key (PEM) that the signature must verify with (default: --key's own)")
    verifier.add_argument("--no-verify", action="store_true",
                          help="do not verify what --sign-command signs; there is no public key for it here")
    parser.add_argument("--url", required=True, help="https address at which the archive will be published")
    parser.add_argument("--output", required=True, type=Path, metavar="DIR",
                        help="directory for the two files; made when it is missing")
    # Early by default, or tar on a device that does not know the date warns of time stamps in the future.
    parser.add_argument("--mtime", type=int, default=86400, metavar="SECONDS",
                        help="time stamp of every member, in seconds since 1970 (default: %(default)s); the "
                        "same files give the same archive")
    parser.add_argument("--version", action="version", version=version())
    arguments = parser.parse_args()
    if arguments.sign_command == []:
        parser.error("--sign-command: empty")
    if arguments.sign_command and arguments.passphrase_file:
        parser.error("--passphrase-file: only for --key")
    if arguments.sign_command and not (arguments.public_key or arguments.no_verify):
        parser.error("--sign-command: needs --public-key to verify the signature, or --no-verify")
    if arguments.key and arguments.no_verify:
        parser.error("--no-verify: only for --sign-command")
    return arguments


def write_archive(source: Path, archive: Path, mtime: int) -> None:
    # Names without "./": a member for the directory itself would change the work directory's mode.
    names = os.fsencode("\0".join(sorted(os.listdir(source))))
    done = run("tar", "--create", "--gzip", "--file", archive, "--format", "gnu", "--sort", "name",
               "--owner", "0", "--group", "0", "--numeric-owner", "--mtime", f"@{mtime}",
               "--directory", source, "--null", "--files-from", "-", entered=names)
    if done.returncode != 0:
        raise Failure(complaint(done))


def sign(arguments: argparse.Namespace, scratch: Path, report: Report) -> None:
    """Writes the document for the archive in `scratch`; the report tells whether devices will accept it."""
    archive, document = scratch / ARCHIVE, scratch / DOCUMENT
    key = PrivateKey(arguments.key, arguments.passphrase_file) if arguments.key else None
    verifier = arguments.public_key
    if key and not verifier:
        verifier = scratch / "public.pem"
        verifier.write_bytes(key.public_half())
    if verifier and not check_key(verifier, report):
        return
    raw = key.sign(archive) if key else sign_with_command(archive, arguments.sign_command)
    signature = base64.b64encode(raw).decode()
    document.write_text(json.dumps({"url": arguments.url, "signature": signature}) + "\n")
    if verifier:
        check_signature(signature, document, archive, verifier, scratch, report)


def make_bundle(arguments: argparse.Namespace, report: Report) -> None:
    """Makes nothing if the report has errors."""
    output: Path = arguments.output
    if output.resolve().is_relative_to(arguments.source.resolve()):
        raise Failure(f"{output}: is inside SOURCE_DIR")
    # On the same file system, so that the finished files need only be renamed.
    nearest = next(path for path in (output, *output.absolute().parents) if path.is_dir())
    with scratch_directory(nearest) as scratch:
        secret = arguments.key.read_bytes() if arguments.key else b""
        check_address(arguments.url, scratch / DOCUMENT, report)
        write_archive(arguments.source, scratch / ARCHIVE, arguments.mtime)
        check_archive(scratch / ARCHIVE, scratch / "unpacked", report, secret)
        if not report.has_error():
            sign(arguments, scratch, report)
        if not report.has_error():
            publish(scratch, output)


def publish(scratch: Path, output: Path) -> None:
    """Puts the archive and its document into place."""
    output.mkdir(parents=True, exist_ok=True)
    for name in (ARCHIVE, DOCUMENT):
        if (output / name).is_dir():
            raise Failure(f"{output / name}: is a directory")
    with signals_wait():
        for name in (ARCHIVE, DOCUMENT):
            os.replace(scratch / name, output / name)


def main() -> int:
    arguments = parse_arguments()
    report = Report()
    make_bundle(arguments, report)
    for finding in report.findings:
        print(f"{NAME}: {finding.severity}: {finding.text}", file=sys.stderr)
    if report.has_error():
        return 1
    print(f"{arguments.output / ARCHIVE}: {report.facts['packed']}, SHA-256 {report.facts['SHA-256']}; "
          f"key: {report.facts.get('key', 'not verified')}")
    return 0
