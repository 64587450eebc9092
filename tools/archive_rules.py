"""What devices demand of a bundle's archive, and what must not be published in one."""

import hashlib
import posixpath
import re
import tarfile
import zlib
from collections.abc import Iterator
from fnmatch import fnmatchcase
from pathlib import Path

from bundle_rules import Report
from programs import complaint, run
from script_rules import check_script

ARCHIVE = "zelo_installer.tar.gz"
DOCUMENT = "zelo_installer_meta.json"
WORK_DIRECTORY_MODE = 0o700
BLOCK = 4096  # the least that a file takes

# The daemon keeps these beside the unpacked files; a member of the same name replaces them.
RESERVED = (ARCHIVE, DOCUMENT, f"{ARCHIVE}.sig", f"{ARCHIVE}.sig.sha256")

LEFTOVERS = (".git", ".hg", ".svn", "*~", "#*#", "*.swp", ".DS_Store")

# A key that is there, not just its name in a program: lines of base64 follow, perhaps after headers.
PRIVATE_KEY = re.compile(rb"-----BEGIN (?:[A-Z]+ )?PRIVATE KEY-----"
                         rb"(?:\s|\\[nr]|[A-Za-z-]+: .*\n)*[A-Za-z0-9+/]{40}")


def check_archive(archive: Path, directory: Path, report: Report, secret: bytes = b"") -> None:
    """Unpacks the archive the way a device does, into the new `directory`; no member may hold `secret`."""
    with open(archive, "rb") as file:
        report.facts["SHA-256"] = hashlib.file_digest(file, "sha256").hexdigest()
    directory.mkdir(WORK_DIRECTORY_MODE)
    for name in RESERVED:
        (directory / name).touch()
    done = run("tar", "-xzf", archive.absolute(), "-C", directory)
    if done.returncode != 0:
        report.error(archive, f"cannot be unpacked: {complaint(done)}")
        return
    try:
        check_members(archive, report, secret)
    except (tarfile.TarError, OSError, EOFError, ValueError, zlib.error) as error:
        report.error(archive, f"its members cannot be listed: {error}")
    check_script(archive, directory, report)


def check_members(archive: Path, report: Report, secret: bytes) -> None:
    packed, unpacked = archive.stat().st_size, 0
    blocks = packed // BLOCK + len(RESERVED)
    with tarfile.open(archive, "r:gz") as tar:
        for member in tar:
            for remark in remarks_on(member):
                report.warning(archive, f"member {member.name!r}: {remark}")
            file = tar.extractfile(member) if member.isreg() else None
            content = file.read() if file else b""
            if PRIVATE_KEY.search(content) or (secret and secret in content):
                report.error(archive, f"member {member.name!r}: holds a private key, "
                             "which must never be published")
            unpacked += member.size
            blocks += member.size // BLOCK + 1
    report.facts.update({"packed": f"{packed} bytes", "unpacked": f"{unpacked} bytes",
                         "room needed in /tmp": f"{blocks * BLOCK} bytes"})


def remarks_on(member: tarfile.TarInfo) -> Iterator[str]:
    name = posixpath.normpath(member.name)
    if name in RESERVED:
        yield "the name of one of the daemon's own files"
    if name == "." and member.mode != WORK_DIRECTORY_MODE:
        yield f"sets the mode of the daemon's work directory to {member.mode:04o}"
    if any(fnmatchcase(posixpath.basename(name), pattern) for pattern in LEFTOVERS):
        yield "left by an editor or version control"
    target = posixpath.normpath(posixpath.join(posixpath.dirname(name), member.linkname))
    if member.issym() and target.split("/")[0] in ("", ".."):
        yield f"a link to {member.linkname!r}, outside the directory"
    # The device goes by the names where it knows them.
    owner = f"{member.uname or member.uid}:{member.gname or member.gid}"
    if owner not in ("0:0", "root:root"):
        yield f"belongs to {owner}, not to root"
