"""How try-bundle is called."""

import argparse
import os
import re
from pathlib import Path

EPILOG = """\
run.sh cannot reach this machine: it has no network, sees only the device's files and processes, and can
neither mount, nor set the host name, nor restart the device.
The second attempt is what a fleet does: every start of the daemon runs the script again, and a timer starts
it daily. If the second attempt fails before it reaches its script, the device can no longer be updated. It
always does after a bundle that replaces the device's key: use --once.

Exit status: 0 installed, 1 not installed, or the device cannot be updated any more, 2 wrong usage."""


def setting(text: str) -> list[str]:
    """Key and value."""
    if not re.match("[^/=]+=", text):
        raise argparse.ArgumentTypeError(f"{text}: expected KEY=VALUE, with no / in KEY")
    return text.split("=", 1)


def addition(text: str) -> dict[str, Path]:
    """Path on the device -> path here, for each file."""
    source, _, target = text.partition(":")
    target = os.path.normpath("/" + (target or os.path.abspath(source)).lstrip("/"))
    files = [path for path in (Path(source), *Path(source).rglob("*")) if path.is_file()]
    if not files:
        raise argparse.ArgumentTypeError(f"{source}: neither a file nor a folder with files")
    return {os.path.normpath(Path(target, path.relative_to(source))): path.resolve() for path in files}


def system(text: str) -> Path:
    path = Path(text).resolve()
    if not path.is_dir() or path == Path("/"):
        raise argparse.ArgumentTypeError(f"{text} is not a folder with a root file system of its own")
    return path


def parse_arguments(description: str | None) -> argparse.Namespace:
    parser = argparse.ArgumentParser(
        prog="./try-bundle", usage="%(prog)s [OPTION]... DIRECTORY | DOCUMENT ARCHIVE",
        description=description, epilog=EPILOG, formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("bundle", nargs="+", type=Path, metavar="DIRECTORY | DOCUMENT ARCHIVE",
                        help="the files of a bundle, or a bundle as make-bundle writes it")
    parser.add_argument("--key", type=Path, metavar="PUBLIC",
                        help="the device's key, for DOCUMENT's signature (default: sign with a new key)")
    parser.add_argument("--root", type=system, metavar="DIR",
                        help="use a copy of this root file system as the device; what the daemon needs is "
                        "added, device-info, certificates and keys are replaced")
    parser.add_argument("--add", action="append", default=[], type=addition, metavar="PATH[:TARGET]",
                        help="put a file, a program with its libraries, or a folder on the device, at TARGET")
    parser.add_argument("--setting", action="append", default=[], type=setting,
                        metavar="KEY=VALUE", help="set a value of the configuration store")
    parser.add_argument("--once", action="store_true", help="skip the second attempt")
    parser.add_argument("--timeout", type=int, metavar="SECONDS", help="stop an attempt that takes longer")
    parser.add_argument("--strict", action="store_true",
                        help="exit with status 1 after 'installed, but', too")
    parser.add_argument("--unconfined", action="store_true",
                        help="run the bundle even where run.sh can reach this machine")
    parser.add_argument("--no-install", action="store_true", help="do not install packages that are missing")
    arguments = parser.parse_args()
    if len(arguments.bundle) > 2 or (arguments.key and len(arguments.bundle) == 1):
        parser.error("expected one DIRECTORY, or DOCUMENT and ARCHIVE, which may have a --key")
    return arguments
