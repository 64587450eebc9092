"""Makes an installer bundle: the archive, its signature and the metadata document that names both."""

import argparse
import base64
import getpass
import gzip
import json
import os
import shlex
import signal
import subprocess
import sys
import tarfile
from pathlib import Path
from typing import IO, cast

from bundle_rules import (ARCHIVE, DOCUMENT, SCRIPT, Report, check_address, check_archive, check_signature,
                          describe_key)
from command import ENDING, NAME, Failure, version
from programs import require_an_exit, run
from scratch import scratch_directory

# Early, so that tar does not warn of time stamps in the future on a device that does not know the date.
DEFAULT_MTIME = 86400


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
    parser.add_argument("--mtime", type=int, default=DEFAULT_MTIME, metavar="SECONDS",
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
    def anonymous(member: tarfile.TarInfo) -> tarfile.TarInfo:
        member.uid = member.gid = 0
        member.uname = member.gname = ""
        member.mtime = mtime
        return member

    with open(archive, "wb") as raw, gzip.GzipFile("", "wb", fileobj=raw, mtime=0) as packed:
        with tarfile.open(mode="w", fileobj=cast(IO[bytes], packed), format=tarfile.GNU_FORMAT) as tar:
            # Names without "./": a member for the directory itself would change the work directory's mode.
            for name in sorted(os.listdir(source)):
                tar.add(source / name, name, filter=anonymous)


def passphrase(key: bytes, arguments: argparse.Namespace) -> bytes:
    """The line that opens the key; empty for one that is not encrypted."""
    if b"PUBLIC KEY-----" in key:
        raise Failure(f"{arguments.key}: a public key; a private one is needed to sign")
    if b"ENCRYPTED" not in key:
        return b"\n"
    if arguments.passphrase_file:
        line: bytes = arguments.passphrase_file.read_bytes().partition(b"\n")[0]
        if not line:
            raise Failure(f"{arguments.passphrase_file}: the first line is empty")
        return line + b"\n"
    try:
        os.close(os.open("/dev/tty", os.O_RDWR))
        return getpass.getpass(f"Passphrase of {arguments.key}: ").encode() + b"\n"
    except (OSError, EOFError):
        raise Failure(f"{arguments.key}: is encrypted, and no passphrase was entered; "
                      "use --passphrase-file") from None


def public_half(key: Path, opening: bytes) -> bytes:
    done = run("openssl", "pkey", "-in", key, "-passin", "stdin", "-pubout", entered=opening)
    if done.returncode == 0:
        return done.stdout
    raise Failure(f"{key}: " + ("not a private key that openssl can read" if opening == b"\n" else
                                "the passphrase is wrong, or the key is damaged"))


def sign_with_key(archive: Path, key: Path, opening: bytes) -> bytes:
    done = run("openssl", "dgst", "-sha256", "-passin", "stdin", "-sign", key, archive, entered=opening)
    if done.returncode != 0:
        raise Failure(f"{key}: openssl cannot sign with it: {done.stderr.decode(errors='replace').strip()}")
    return done.stdout


def sign_with_command(archive: Path, command: list[str]) -> bytes:
    # With our terminal and environment: a token asks for its PIN, and has settings.
    done = subprocess.run([*command, archive], stdout=subprocess.PIPE, check=False)
    require_an_exit(command[0], done.returncode)
    if done.returncode != 0:
        raise Failure(f"{command[0]} ended with status {done.returncode}")
    if done.stdout.isascii():
        what = "text instead of the signature's bytes" if done.stdout else "nothing"
        raise Failure(f"{command[0]} printed {what}")
    return done.stdout


def make_bundle(arguments: argparse.Namespace, report: Report) -> str:
    """What was made, in a line; empty if the report has errors."""
    output: Path = arguments.output
    if output.resolve().is_relative_to(arguments.source.resolve()):
        raise Failure(f"{output}: is inside SOURCE_DIR")
    # On the same file system, so that the finished files need only be renamed.
    nearest = next(path for path in (output, *output.absolute().parents) if path.is_dir())
    with scratch_directory(nearest) as scratch:
        archive, document, public = scratch / ARCHIVE, scratch / DOCUMENT, scratch / "public.pem"
        key = arguments.key.read_bytes() if arguments.key else b""
        check_address(arguments.url, document, report)
        write_archive(arguments.source, archive, arguments.mtime)
        check_archive(archive, scratch / "unpacked", report, secret=key)
        if report.has_error():
            return ""
        verifier = arguments.public_key
        if arguments.key:
            opening = passphrase(key, arguments)
            public.write_bytes(public_half(arguments.key, opening))
            verifier = verifier or public
        if verifier and not describe_key(verifier, report):
            return ""
        if arguments.key:
            signature = base64.b64encode(sign_with_key(archive, arguments.key, opening))
        else:
            signature = base64.b64encode(sign_with_command(archive, arguments.sign_command))
        document.write_text(json.dumps({"url": arguments.url, "signature": signature.decode()}) + "\n")
        if verifier:
            check_signature(signature, document, archive, verifier, scratch, report)
        if report.has_error():
            return ""
        publish(scratch, output)
    return (f"{output / ARCHIVE}: {report.facts['packed']}, SHA-256 {report.facts['SHA-256']}; "
            f"{output / DOCUMENT}: {(output / DOCUMENT).stat().st_size} bytes; "
            f"key: {report.facts.get('key', 'not verified')}")


def publish(scratch: Path, output: Path) -> None:
    """Puts the archive and its document into place; no signal comes between."""
    output.mkdir(parents=True, exist_ok=True)
    signal.pthread_sigmask(signal.SIG_BLOCK, ENDING)
    try:
        for name in (ARCHIVE, DOCUMENT):
            os.replace(scratch / name, output / name)
    finally:
        signal.pthread_sigmask(signal.SIG_UNBLOCK, ENDING)


def main() -> int:
    arguments = parse_arguments()
    report = Report()
    made = make_bundle(arguments, report)
    for finding in report.findings:
        print(f"{NAME}: {finding.severity}: {finding.text}", file=sys.stderr)
    if not made:
        return 1
    print(made)
    return 0
