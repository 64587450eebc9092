"""What the device demands of a bundle, for the tools that make and check bundles."""

import os
import re
import stat
from pathlib import Path
from urllib.parse import unquote, urlsplit

ARCHIVE = "zelo_installer.tar.gz"
DOCUMENT = "zelo_installer_meta.json"
SCRIPT = "run.sh"

# The daemon keeps these beside the unpacked files; a member of the same name would replace them.
RESERVED = (ARCHIVE, DOCUMENT, f"{ARCHIVE}.sig", f"{ARCHIVE}.sig.sha256")

LOCAL_HOSTS = ("localhost", "localhost.localdomain")
LOOPBACK = re.compile(r"127(\.[0-9]{1,3}){3}")


class BadBundle(Exception):
    """Input that no device would accept; the text says what is wrong with it."""


def check_address(url: str) -> None:
    """Refuses a download address that the device refuses, or that cannot be written into a document."""
    if not re.fullmatch(r"[!-~]+", url):
        raise BadBundle(f"address {url!r}: only printable ASCII characters without blanks are allowed")
    try:
        parts = urlsplit(url)
        host = unquote(parts.hostname or "").lower()
        _ = parts.port  # parsed, and refused, when it is asked for
    except ValueError as error:
        raise BadBundle(f"address {url}: {error}") from None
    if parts.scheme != "https":
        raise BadBundle(f"address {url}: the device accepts https only")
    if not host:
        raise BadBundle(f"address {url}: no host")
    if host in LOCAL_HOSTS or LOOPBACK.fullmatch(host):
        raise BadBundle(f"address {url}: the device refuses its own address {host}")


def check_script(path: Path) -> None:
    """Refuses a script that the device could not start."""
    try:
        info = os.lstat(path)
    except OSError as error:
        raise BadBundle(f"{path}: {error.strerror}") from None
    if not stat.S_ISREG(info.st_mode):
        raise BadBundle(f"{path}: not a regular file")
    if not info.st_mode & stat.S_IXUSR:
        raise BadBundle(f"{path}: not executable")
    text = path.read_bytes()
    if not re.match(rb"#![ \t]*/[^\s]", text):
        raise BadBundle(f"{path}: does not begin with an interpreter line (#!/...)")
    if b"\r\n" in text:
        raise BadBundle(f"{path}: has CRLF line ends")


def check_tree(directory: Path) -> None:
    """Refuses members that the device could not unpack, or that would overwrite the daemon's files."""
    for name in RESERVED:
        if os.path.lexists(directory / name):
            raise BadBundle(f"{directory / name}: the name is the daemon's own")

    def refuse(error: OSError) -> None:
        raise error

    for parent, directories, files in os.walk(directory, onerror=refuse):
        for path in (Path(parent, name) for name in directories + files):
            mode = os.lstat(path).st_mode
            if not (stat.S_ISREG(mode) or stat.S_ISDIR(mode) or stat.S_ISLNK(mode)):
                raise BadBundle(f"{path}: neither a file, a directory nor a symbolic link")
