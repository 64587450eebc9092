"""How try-bundle is called."""

import argparse
import os
import re
from pathlib import Path

EPILOG = """\
Nothing that run.sh does reaches this machine: it sees the device's files and processes, has no network and no
/sys, and cannot remount the root or restart the device. Where that cannot be had, --unconfined is needed.
The second attempt is what a fleet does: each start of the daemon runs the script again, and the timer starts
it daily. When it fails before it comes to its script, the device cannot be updated any more. (A bundle that
replaces the device's key does that to itself: --once leaves the second attempt out.)
A failed download is not repeated, unless --setting says so.

Exit status: 0 installed, 1 not installed, or the device cannot be updated any more, 2 wrong usage."""

# The virtual device needs its own of these, or puts its own in their place.
OWN = re.compile(r"(/usr)?/s?bin/(zeloinstall|transfer-service|vestrel|kbus-set-prop|kbus-send-event)"
                 r"|/(dev|proc)(/.*)?|/run/(kbus\.sock|transfer)(/.*)?|/usr/lib/virtual-device/.*"
                 r"|/etc/(hosts|nsswitch\.conf|device-info|zelo/pubkey(prod|dev)\.pem)"
                 r"|/etc/ssl/certs/ca-certificates\.crt|/")


def setting(text: str) -> list[str]:
    """Key and value."""
    if not re.match(r"(?!\.\.?=)[^/=]+=", text):
        raise argparse.ArgumentTypeError(f"{text}: expected KEY=VALUE, with no / in KEY")
    return text.split("=", 1)


def addition(text: str) -> dict[str, Path]:
    """Path on the device -> path here, for each file."""
    here, _, there = text.partition(":")
    there = os.path.normpath("/" + (there or os.path.abspath(here)).lstrip("/"))
    if OWN.fullmatch(there):
        raise argparse.ArgumentTypeError(f"{text}: the device has its own {there}")
    if Path(here).is_file():
        return {there: Path(here).resolve()}
    if not Path(here).is_dir():
        raise argparse.ArgumentTypeError(f"{text}: {here} is neither a file nor a folder")
    found = (Path(parent, name) for parent, _, names in os.walk(here, followlinks=True) for name in names)
    files = {os.path.join(there, path.relative_to(here)): path.resolve() for path in found if path.is_file()}
    return {target: path for target, path in files.items() if not OWN.fullmatch(target)}


def system(text: str) -> Path:
    path = Path(text).resolve()
    if not path.is_dir() or path == Path("/"):
        raise argparse.ArgumentTypeError(f"{text} is not a folder with a root file system of its own")
    return path


def seconds(text: str) -> float:
    value = float(text)
    if not 0 < value < float("inf"):
        raise argparse.ArgumentTypeError(f"{text}: expected a number of seconds")
    return value


def parse_arguments(description: str | None) -> argparse.Namespace:
    parser = argparse.ArgumentParser(
        prog="./try-bundle", description=description, epilog=EPILOG,
        usage="%(prog)s [OPTION]... DIRECTORY | DOCUMENT ARCHIVE",
        formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("bundle", nargs="+", type=Path, metavar="DIRECTORY | DOCUMENT ARCHIVE",
                        help="the files of a bundle, or a bundle as make-bundle writes it")
    parser.add_argument("--key", type=Path, metavar="PUBLIC",
                        help="install this public key on the device, for DOCUMENT's signature (default: the "
                        "bundle is signed with a new key)")
    parser.add_argument("--root", type=system, metavar="DIR",
                        help="use this root file system as the device; DIR stays as it is. What the daemon "
                        "needs is added; hosts, nsswitch.conf, device-info, certificates, keys are replaced")
    parser.add_argument("--bare", action="store_true",
                        help="leave out what a small system has (busybox) and the daemon does not need")
    parser.add_argument("--add", action="append", default=[], type=addition, metavar="PATH[:TARGET]",
                        help="put a file, a program with its libraries, or a folder on the device, at TARGET")
    parser.add_argument("--setting", action="append", default=[], type=setting,
                        metavar="KEY=VALUE", help="set a value of the configuration store")
    parser.add_argument("--once", action="store_true", help="leave out the second attempt")
    parser.add_argument("--timeout", type=seconds, metavar="SECONDS",
                        help="stop an attempt that takes longer")
    parser.add_argument("--strict", action="store_true", help="'installed, but' also has exit status 1")
    parser.add_argument("--unconfined", action="store_true",
                        help="run the bundle even where run.sh can reach this machine")
    parser.add_argument("--no-install", action="store_true", help="do not install packages that are missing")
    parser.add_argument("--shell", action="store_true", help="start a shell on the device after the attempts")
    arguments = parser.parse_args()
    if len(arguments.bundle) > 2 or (arguments.key and len(arguments.bundle) == 1):
        parser.error("expected one DIRECTORY, or DOCUMENT and ARCHIVE, which may have a --key")
    return arguments
