"""What devices demand of a bundle's archive, and what must not be published in one."""

import hashlib
import os
import posixpath
import stat
import tarfile
import zlib
from collections.abc import Iterator
from fnmatch import fnmatchcase
from pathlib import Path

from document_rules import SWAPPED
from key_rules import PRIVATE_KEY
from programs import run
from report import Report
from script_rules import check_script, is_inside

ARCHIVE = "zelo_installer.tar.gz"
DOCUMENT = "zelo_installer_meta.json"
WORK_DIRECTORY_MODE = 0o700

# The daemon keeps these beside the unpacked files; a member of the same name replaces them.
RESERVED = (ARCHIVE, DOCUMENT, f"{ARCHIVE}.sig", f"{ARCHIVE}.sig.sha256")

LEFTOVERS = (".git", ".hg", ".svn", "*~", "#*#", "*.swp", ".DS_Store")

NO_ARCHIVES = {b"BZh": "compressed with bzip2, not gzip", b"\xfd7zXZ": "compressed with xz, not gzip",
               b"(\xb5/\xfd": "compressed with zstd, not gzip", b"PK\3\4": "a zip file",
               b"{": f"it looks like a document; {SWAPPED}", b"-----BEGIN": f"it looks like a key; {SWAPPED}"}


def check_archive(archive: Path, directory: Path, report: Report, secret: bytes = b"") -> None:
    """Unpacks the archive the way a device does; `directory` is new and gets what is in it.

    No member may hold `secret`.
    """
    with open(archive, "rb") as file:
        report.facts["SHA-256"] = hashlib.file_digest(file, "sha256").hexdigest()
    directory.mkdir(WORK_DIRECTORY_MODE)
    for name in RESERVED:
        (directory / name).touch()
    done = run("tar", "-xzf", archive.absolute(), "-C", directory)
    if done.returncode != 0:
        report.error("archive-not-unpacked", archive, f"cannot be unpacked: {why_not(archive, done.stderr)}")
        return
    try:
        with tarfile.open(archive, "r:gz") as tar:
            for count, member in enumerate(tar, 1):
                report.facts["members"] = count
                for kind, remark in remarks_on(member):
                    report.warning(kind, archive, f"member {member.name!r}: {remark}")
    except (tarfile.TarError, OSError, EOFError, ValueError, zlib.error) as error:
        report.warning("archive-not-listed", archive, f"its members cannot be listed: {error}")
    check_tree(archive, directory, report, secret)
    check_script(archive, directory, report)


def why_not(archive: Path, said: bytes) -> str:
    with open(archive, "rb") as file:
        head = file.read(512)
    if not head:
        return "it is empty"
    if head[257:262] == b"ustar":
        return "a tar archive, but not compressed with gzip"
    for magic, text in NO_ARCHIVES.items():
        if head.startswith(magic):
            return text
    lines = said.decode(errors="replace").splitlines()
    return next((line for line in lines if line and "Removing leading" not in line), "no reason given")


def remarks_on(member: tarfile.TarInfo) -> Iterator[tuple[str, str]]:
    """Kind and text of each warning."""
    name = posixpath.normpath(member.name)
    if name.startswith("/"):
        yield "member-absolute", "the name is absolute; devices unpack it below the work directory"
    if name in RESERVED:
        yield "member-reserved", "the name of one of the daemon's own files"
    if name == "." and member.mode != WORK_DIRECTORY_MODE:
        yield "member-work-directory", f"sets the mode of the daemon's work directory to {member.mode:04o}"
    if not (member.isreg() or member.isdir() or member.issym() or member.islnk()):
        yield "member-special", "not a file, directory or link"
    # The device goes by the names where it knows them.
    if (member.uid, member.gid) != (0, 0) or not {member.uname, member.gname} <= {"", "root"}:
        yield ("member-owner", f"belongs to {member.uname or member.uid}:{member.gname or member.gid} "
               f"({member.uid}:{member.gid}), not to root")


def check_tree(archive: Path, directory: Path, report: Report, secret: bytes) -> None:
    """Names, links, private keys, and the room that the files need; makes them readable for us."""
    unpacked, room = 0, blocks(archive.stat().st_size)
    directory.chmod(WORK_DIRECTORY_MODE)
    for parent, directories, files in os.walk(directory):
        for path in (Path(parent, name) for name in directories + files):
            member = f"member {str(path.relative_to(directory))!r}"
            info = path.lstat()
            if any(fnmatchcase(path.name, pattern) for pattern in LEFTOVERS):
                report.warning("member-leftover", archive, f"{member}: left by an editor or version control")
            if stat.S_ISDIR(info.st_mode):
                path.chmod(info.st_mode | stat.S_IRWXU)
                room += blocks(1)
            elif stat.S_ISREG(info.st_mode):
                path.chmod(info.st_mode | stat.S_IRUSR)
                content = path.read_bytes()
                if PRIVATE_KEY.search(content) or (secret and secret in content):
                    report.error("member-private-key", archive,
                                 f"{member}: holds a private key, which must never be published")
                unpacked += info.st_size
                room += blocks(info.st_size)
            elif stat.S_ISLNK(info.st_mode) and not is_inside(directory, path):
                report.warning("member-link-outside", archive,
                               f"{member}: a link to {os.readlink(path)!r}, outside the directory")
    report.facts.update({"packed": f"{archive.stat().st_size} bytes", "unpacked": f"{unpacked} bytes",
                         "room needed in /tmp": f"{room + blocks(1) * len(RESERVED)} bytes"})


def blocks(size: int) -> int:
    """The room that a file of this size needs."""
    return -(-size // 4096) * 4096
