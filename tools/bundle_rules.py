"""What the device demands of a bundle, for the tools that make and check bundles.

An error is what a device fails at; a warning is what works there, but is risky or sloppy.
"""

import hashlib
import json
import os
import posixpath
import re
import socket
import stat
import tarfile
import zlib
from collections.abc import Iterator
from contextlib import suppress
from dataclasses import dataclass, field
from ipaddress import ip_address
from pathlib import Path
from urllib.parse import unquote, urlsplit

from command import run

ARCHIVE = "zelo_installer.tar.gz"
DOCUMENT = "zelo_installer_meta.json"
SCRIPT = "run.sh"
WORK_DIRECTORY_MODE = 0o700

# The daemon keeps these beside the unpacked files; a member of the same name replaces them.
RESERVED = (ARCHIVE, DOCUMENT, f"{ARCHIVE}.sig", f"{ARCHIVE}.sig.sha256")

LOCAL_HOSTS = ("localhost", "localhost.localdomain")
LOOPBACK = re.compile(r"127(\.[0-9]{1,3}){3}")

KERNEL_READS = 256  # bytes of a script, to find its interpreter
OLD_KERNEL_READS = 128  # before Linux 5.1

SWAPPED = "are the arguments swapped?"
NO_ARCHIVES = {b"BZh": "compressed with bzip2, not gzip", b"\xfd7zXZ": "compressed with xz, not gzip",
               b"(\xb5/\xfd": "compressed with zstd, not gzip", b"PK\3\4": "a zip file",
               b"{": f"it looks like a document; {SWAPPED}", b"-----BEGIN": f"it looks like a key; {SWAPPED}"}


@dataclass(frozen=True)
class Finding:
    severity: str  # error or warning
    kind: str  # the rule, for callers: what it is about (document, address, ...), a dash, what is wrong
    subject: Path
    text: str


@dataclass
class Report:
    findings: list[Finding] = field(default_factory=list)
    facts: dict[str, object] = field(default_factory=dict)

    def error(self, kind: str, subject: Path, text: str) -> None:
        self.findings.append(Finding("error", kind, subject, text))

    def warning(self, kind: str, subject: Path, text: str) -> None:
        self.findings.append(Finding("warning", kind, subject, text))

    def has_error(self) -> bool:
        return any(finding.severity == "error" for finding in self.findings)


def check_document(document: Path, report: Report) -> str | None:
    """The signature's text, if there is one."""
    members = read_members(document, report)
    if members is None:
        return None
    address, signature = (text_member(name, members, document, report) for name in ("url", "signature"))
    if address is not None:
        check_address(address, document, report)
    return signature


def read_members(document: Path, report: Report) -> dict[str, object] | None:
    """The document's members, as the device's parser finds them."""
    def first_ones(pairs: list[tuple[str, object]]) -> dict[str, object]:
        members = {name.partition("\0")[0]: value for name, value in reversed(pairs)}
        if len(members) < len(pairs):
            report.warning("document-member-twice", document,
                           "a member appears twice; devices take the first")
        return members

    def refuse(constant: str) -> None:
        raise ValueError(f"{constant} is no JSON")

    raw = document.read_bytes()
    text = raw.partition(b"\0")[0].decode("utf-8-sig", "surrogateescape").strip()
    if raw.startswith(b"\x1f\x8b"):
        report.error("document-not-json", document, f"not JSON: it looks like an archive; {SWAPPED}")
        return None
    try:
        decoder = json.JSONDecoder(object_pairs_hook=first_ones, parse_constant=refuse, strict=False)
        members, end = decoder.raw_decode(text)
        if re.search("[\ud800-\udc7f\udd00-\udfff]", json.dumps(members, ensure_ascii=False)):
            raise ValueError("half of a surrogate pair")
    except (ValueError, RecursionError) as error:
        report.error("document-not-json", document, f"not JSON: {error}")
        return None
    if re.search("[\udc80-\udcff]", text):
        report.warning("document-not-utf-8", document, "not all of it is UTF-8")
    if text[end:] or b"\0" in raw:
        report.warning("document-trailing-data", document, "something follows the document's end")
    if not isinstance(members, dict):
        report.error("document-not-an-object", document, "not a JSON object")
        return None
    return members


def text_member(name: str, members: dict[str, object], document: Path, report: Report) -> str | None:
    value = members.get(name)
    if not isinstance(value, str):
        report.error("document-member-missing", document, f"no string member {name}")
        return None
    text, null, _ = value.partition("\0")
    if null:
        report.warning("document-null-character", document,
                       f"member {name} holds \\u0000, where it ends for devices")
    return text


def check_address(url: str, document: Path, report: Report) -> None:
    if re.search(r"[\0- \x7f]", url):
        report.error("address-malformed", document, f"address {url!r}: holds a blank or a control character")
        return
    try:
        parts = urlsplit(url)
        host = unquote(parts.hostname or "").lower()
        _ = parts.port  # parsed, and refused, when it is asked for
    except ValueError as error:
        report.error("address-malformed", document, f"address {url}: {error}")
        return
    if parts.scheme != "https":
        report.error("address-not-https", document, f"address {url}: devices accept https only")
    elif not host:
        report.error("address-malformed", document, f"address {url}: no host")
    elif re.search(r"[\0- /\x7f]", host):
        report.error("address-malformed", document, f"address {url}: no download from the host {host!r}")
    elif host in LOCAL_HOSTS or LOOPBACK.fullmatch(host):
        report.error("address-own", document, f"address {url}: devices refuse their own address {host}")
    elif is_own(host):
        report.warning("address-own", document, f"address {url}: {host} is each device's own address")
    if not url.isascii():
        report.warning("address-not-ascii", document, f"address {url}: holds characters that are not ASCII")
    report.facts["address"] = url


def is_own(host: str) -> bool:
    """Whether a host means the device itself in a way that its policy does not know."""
    name = host.rstrip(".")
    with suppress(OSError, ValueError):  # what is no text, or has a null in it, is no number
        name = socket.inet_ntoa(socket.inet_aton(name))
    with suppress(ValueError):
        address = ip_address(name)
        address = getattr(address, "ipv4_mapped", None) or address
        return address.is_loopback or address.is_unspecified
    return name in LOCAL_HOSTS or name.endswith(".localhost")


def describe_key(key: Path, report: Report) -> str | None:
    """Kind and size of a public key that devices can use."""
    text = key.read_bytes()
    done = run("openssl", "pkey", "-pubin", "-in", key.absolute(), "-noout", "-text")
    size = re.search(rb"Public-Key: \(([0-9]+) bit", done.stdout)
    # Some versions of openssl take the public half of a private key.
    if b"PRIVATE KEY-----" in text:
        report.error("key-private", key,
                     "a private key, which must never get on a device; it needs the public one")
    elif b"-----BEGIN CERTIFICATE-----" in text:
        report.error("key-certificate", key, "a certificate; devices need the public key alone")
    elif done.returncode != 0:
        report.error("key-unreadable", key, "not a public key that openssl can read")
    elif not size:
        kind = done.stdout.partition(b" ")[0].decode()
        report.error("key-unusable", key,
                     f"devices cannot use a key of the kind {kind}; RSA and EC keys work")
    else:
        kind = "RSA" if b"Modulus:" in done.stdout else "EC" if b"OID:" in done.stdout else "other"
        bits = int(size[1])
        if bits < (224 if kind == "EC" else 2048):
            report.warning("key-weak", key, f"a weak key, of {bits} bits only")
        report.facts["key"] = f"{kind}, {bits} bits"
        return f"{kind}, {bits} bits"
    return None


def check_signature(signature: bytes, document: Path, archive: Path, key: Path, scratch: Path,
                    report: Report) -> None:
    text, decoded = scratch / "signature", scratch / "signature.sha256"
    text.write_bytes(signature)
    done = run("base64", "-d", text)
    if done.returncode != 0 or not done.stdout:
        report.error("signature-not-base64", document,
                     "the signature is empty or not base64 (with + and /, and = to its end)")
        return
    if len(signature.replace(b"\n", b"")) % 4:
        report.warning("signature-unpadded", document,
                       "the signature is base64 without = to its end, which some devices refuse")
    decoded.write_bytes(done.stdout)
    done = run("openssl", "dgst", "-sha256", "-verify", key.absolute(), "-signature", decoded,
               archive.absolute())
    if done.stdout != b"Verified OK\n":
        report.error("signature-wrong", archive, f"the signature does not verify with {key}")


def check_archive(archive: Path, directory: Path, report: Report) -> None:
    """Unpacks the archive the way the device does it; `directory` is new and gets what is in it."""
    with open(archive, "rb") as file:
        report.facts["SHA-256"] = hashlib.file_digest(file, "sha256").hexdigest()
    directory.mkdir(WORK_DIRECTORY_MODE)
    for name in RESERVED:
        (directory / name).touch()
    done = run("tar", "-xzf", archive.absolute(), "-C", directory)
    if done.returncode != 0:
        report.error("archive-not-unpacked", archive, f"does not unpack: {why_not(archive, done.stderr)}")
        return
    try:
        with tarfile.open(archive, "r:gz") as tar:
            for count, member in enumerate(tar, 1):
                report.facts["members"] = count
                for kind, remark in remarks_on(member):
                    report.warning(kind, archive, f"member {member.name!r}: {remark}")
    except (tarfile.TarError, OSError, EOFError, ValueError, zlib.error) as error:
        report.warning("archive-not-listed", archive, f"its members cannot be listed: {error}")
    check_tree(archive, directory, report)
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
    lines = [line for line in said.decode(errors="replace").splitlines()
             if line and not line.startswith("tar: Removing leading")]
    lines.sort(key=lambda line: not line.startswith("gzip: "))  # tar tells of what follows from it
    return lines[0] if lines else "no reason given"


def remarks_on(member: tarfile.TarInfo) -> Iterator[tuple[str, str]]:
    """Kind and text of each warning."""
    name = posixpath.normpath(member.name)
    if name.startswith("/"):
        yield "member-absolute", "the name is absolute, which devices take for one below the work directory"
    if name in RESERVED:
        yield "member-reserved", "the name is the daemon's own"
    if name == "." and member.mode != WORK_DIRECTORY_MODE:
        yield "member-work-directory", f"gives the daemon's work directory the mode {member.mode:04o}"
    if not (member.isreg() or member.isdir() or member.issym() or member.islnk()):
        yield "member-special", "neither a file, a directory nor a link"
    # The device goes by the names where it knows them.
    if (member.uid, member.gid) != (0, 0) or not {member.uname, member.gname} <= {"", "root"}:
        yield ("member-owner", f"belongs to {member.uname or member.uid}:{member.gname or member.gid} "
               f"({member.uid}:{member.gid}), not to root")


def check_tree(archive: Path, directory: Path, report: Report) -> None:
    """Links, and the room that the files need; makes them readable for us."""
    unpacked, room = 0, blocks(archive.stat().st_size)
    directory.chmod(WORK_DIRECTORY_MODE)
    for parent, directories, files in os.walk(directory):
        for path in (Path(parent, name) for name in directories + files):
            info = path.lstat()
            if stat.S_ISDIR(info.st_mode):
                path.chmod(info.st_mode | stat.S_IRWXU)
                room += blocks(1)
            elif stat.S_ISREG(info.st_mode):
                unpacked += info.st_size
                room += blocks(info.st_size)
            elif stat.S_ISLNK(info.st_mode) and not is_inside(directory, path):
                report.warning("member-link-outside", archive,
                               f"member {str(path.relative_to(directory))!r}: a link "
                               f"to {os.readlink(path)!r}, out of the directory")
    report.facts.update({"packed": f"{archive.stat().st_size} bytes", "unpacked": f"{unpacked} bytes",
                         "room needed in /tmp": f"{room + blocks(1) * len(RESERVED)} bytes"})


def blocks(size: int) -> int:
    """The room that a file of this size needs."""
    return -(-size // 4096) * 4096


def is_inside(directory: Path, path: Path) -> bool:
    return Path(os.path.realpath(path)).is_relative_to(directory)


def check_script(archive: Path, directory: Path, report: Report) -> None:
    """What the kernel of the device makes of the script."""
    script = directory / SCRIPT
    if not is_inside(directory, script):
        report.warning("script-elsewhere", archive,
                       f"{SCRIPT}: a link out of the directory; what it leads to is unknown")
        return
    try:
        mode = script.stat().st_mode
    except OSError as error:
        report.error("script-missing", archive, f"{SCRIPT}: {error.strerror}")
        return
    if not stat.S_ISREG(mode):
        report.error("script-not-a-file", archive, f"{SCRIPT}: not a regular file")
        return
    if not mode & (stat.S_IXUSR | stat.S_IXGRP | stat.S_IXOTH):
        report.error("script-not-executable", archive, f"{SCRIPT}: not executable")
    script.chmod(mode | stat.S_IRUSR)
    text = script.read_bytes()
    line = text[:KERNEL_READS].partition(b"\n")[0]
    match = re.match(rb"#![ \t]*([^ \t\0]+)", line)
    if text.startswith(b"\x7fELF"):
        report.warning("script-is-a-program", archive,
                       f"{SCRIPT}: a program, which runs only on devices that it was built for")
    elif not match:
        report.error("script-without-interpreter", archive,
                     f"{SCRIPT}: does not begin with an interpreter line (#!/...)")
    elif b"\r" in line:
        report.error("script-interpreter-carriage-return", archive,
                     f"{SCRIPT}: the interpreter line holds a carriage return")
    elif match.end() == KERNEL_READS:
        report.error("script-interpreter-too-long", archive,
                     f"{SCRIPT}: the interpreter's name is longer than kernels read")
    else:
        check_interpreter(os.fsdecode(match[1]), match.end(), archive, report)
        if b"\r\n" in text:
            report.warning("script-carriage-returns", archive,
                           f"{SCRIPT}: has lines that end with a carriage return (CR LF)")


def check_interpreter(name: str, end: int, archive: Path, report: Report) -> None:
    report.facts["interpreter"] = name
    if not name.startswith("/"):
        report.error("script-interpreter-relative", archive,
                     f"{SCRIPT}: the interpreter {name} has no absolute path")
    elif not os.path.exists(name):
        report.warning("script-interpreter-missing", archive,
                       f"{SCRIPT}: the interpreter {name} does not exist here; devices need it")
    elif not (os.path.isfile(name) and os.access(name, os.X_OK)):
        report.error("script-interpreter-not-a-program", archive,
                     f"{SCRIPT}: the interpreter {name} is no program")
    elif end >= OLD_KERNEL_READS:
        report.warning("script-interpreter-long", archive,
                       f"{SCRIPT}: the interpreter's name is longer than kernels before 5.1 read")
