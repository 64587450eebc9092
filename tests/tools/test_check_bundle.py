"""What the checking tool says of bundles; where a device can tell, it must agree."""

import io
import re
import subprocess
import tarfile
from collections.abc import Iterator
from dataclasses import replace
from pathlib import Path

import pytest

from device.bundles import TOOL, Bundle
from device.virtual_device import VirtualDevice

Member = tuple[tarfile.TarInfo, bytes]


def member(name: str, content: bytes = b"", mode: int = 0o755, **fields: object) -> Member:
    info = tarfile.TarInfo(name)
    info.mode = mode
    info.size = len(content)
    for field, value in fields.items():
        setattr(info, field, value)
    return info, content


def packed(*members: Member) -> bytes:
    file = io.BytesIO()
    with tarfile.open(mode="w:gz", fileobj=file) as tar:
        for info, content in members:
            tar.addfile(info, io.BytesIO(content))
    return file.getvalue()


def script(text: bytes, mode: int = 0o755) -> bytes:
    return packed(member("run.sh", text, mode))


RUN = member("run.sh", b"#!/bin/sh -e\n")
GOOD = packed(RUN)


@pytest.fixture(scope="module")
def device(build: Path) -> Iterator[VirtualDevice]:
    with VirtualDevice(build) as device:
        device.set_pref("zelo.installer.download.retries", "0")
        yield device


def check(device: VirtualDevice, directory: Path, bundle: Bundle, *options: str) -> tuple[int, list[str]]:
    """The exit status and the findings."""
    (directory / "document.json").write_bytes(bundle.document)
    (directory / "bundle.tar.gz").write_bytes(bundle.archive)
    key = device.path("/etc/zelo/pubkeyprod.pem")
    command: list[str | Path] = [TOOL.with_name("check-bundle"), "document.json", "bundle.tar.gz", key]
    done = subprocess.run([*command, *options], cwd=directory, text=True, stdout=subprocess.PIPE,
                          check=False, timeout=60)
    return done.returncode, re.findall(r"(?:error|warning): .*", done.stdout)


def judge(device: VirtualDevice, directory: Path, bundle: Bundle, code: str | None, finding: str) -> None:
    """The device shows just this code, or none; the tool has just this finding, or none."""
    device.publish(bundle)
    seen = len(device.shell_lines())
    assert device.start().wait() == 0
    shown = re.findall(r"showError (\d\d)", str(device.shell_lines()[seen:]))
    assert shown == ([code] if code else [])

    status, findings = check(device, directory, bundle)
    assert len(findings) == (1 if finding else 0), findings
    assert finding in str(findings)
    assert status == (1 if finding.startswith("error: ") else 0)


# An archive, the code that a device shows, and what the tool finds.
ARCHIVES: dict[str, tuple[bytes, str | None, str]] = {
    "cut short": (GOOD[:-20], "01", "error: cannot be unpacked: gzip: stdin: unexpected end of file"),
    "below the daemon's": (packed(RUN, member("zelo_installer.tar.gz/x")), "01", "error: cannot be unpacked"),
    "link": (packed(RUN, member("x", type=tarfile.SYMTYPE, linkname="../y")), None, "warning: member 'x': a"),
    "the daemon's": (packed(RUN, member("./zelo_installer.tar.gz")), None, "warning: member './zelo_"),
    "owner": (packed(RUN, member("x", uname="joe")), None, "warning: member 'x': belongs to joe:0, not"),
    "leftover": (packed(RUN, member("run.sh~")), None, "warning: member 'run.sh~': left by an editor"),
    "itself": (packed(member(".", type=tarfile.DIRTYPE, mode=0), RUN), None, "work directory to 0000"),

    "no script": (packed(member("d/run.sh", b"#!/bin/sh\n")), "03", "error: run.sh: there is no such"),
    "not executable": (script(b"#!/bin/sh -e\n", 0o644), "03", "error: run.sh: not executable"),
    "no interpreter": (script(b"exit 0\n"), "03", "error: run.sh: does not begin"),
    "carriage return": (script(b"#!/bin/sh -e\r"), "03", "error: run.sh: the interpreter line contains"),
    "missing here": (script(b"#!/missing\n"), "03", "warning: run.sh: its interpreter /missing does not"),
    "syntax": (script(b"#!/bin/sh -e\nif\n"), "03", "warning: run.sh: sh -n fails here: sh: "),
    "program": (script(Path("/bin/true").read_bytes()), None, "warning: run.sh: a program, which"),
    "no set -e": (script(b"#!/bin/sh\n# set -e\n"), None, "warning: run.sh: has no set -e"),
    "good": (script(b"#!/bin/sh -u\n:; set -u -e\n"), None, ""),
}


@pytest.mark.parametrize("archive, code, found", ARCHIVES.values(), ids=ARCHIVES)
def test_archive(device: VirtualDevice, tmp_path: Path, archive: bytes, code: str | None, found: str) -> None:
    judge(device, tmp_path, device.sign(archive), code, found)


# Text in the document and what replaces it, the code that a device shows, and what the tool finds.
DOCUMENTS: dict[str, tuple[str, str, str | None, str]] = {
    "not JSON": ("}", "", "02", "error: not JSON"),
    "no JSON number": ("{", '{"x": NaN, ', "02", "error: not JSON"),
    "half a character": ("{", r'{"x": "\ud800", ', "02", "error: not JSON"),
    "bad, then good": ("{", '{"url": "http://a/", ', "02", "error: address 'http://a/': devices"),
    "url a number": ("{", '{"url": 1, ', "02", "error: no string member url"),
    "its own name": ("{", '{"url": "https://%6cocalHost:1/x", ', "02", "error: address 'https://%6cocalHost"),
    "unpadded": ("{", '{"signature": "AAAAAA", ', "00", "error: the signature is empty or not base64"),
    "other signature": ("{", '{"signature": "AAAA", ', "00", "error: the signature does not verify"),
    "folded": ('"signature": "', r'"signature": "\n', None, ""),
}


@pytest.mark.parametrize("old, new, code, found", DOCUMENTS.values(), ids=DOCUMENTS)
def test_document(device: VirtualDevice, tmp_path: Path, old: str, new: str, code: str | None,
                  found: str) -> None:
    bundle = device.sign(GOOD)
    document = bundle.document.decode().replace(old, new).encode()
    judge(device, tmp_path, replace(bundle, document=document), code, found)


PRIVATE = {
    "PKCS#8": "openssl genpkey -algorithm ED25519",
    "PKCS#1, encrypted": "openssl genrsa -traditional -aes256 -passout pass:word 2048",
    "in a script": "printf 'cat <<END\\n'; openssl ecparam -name prime256v1 -genkey | sed 's/^/    /'",
    "in JSON": "openssl ecparam -name prime256v1 -genkey -noout | sed ':a; N; $!ba; s/\\n/\\\\n/g'",
}


@pytest.mark.parametrize("command", PRIVATE.values(), ids=PRIVATE)
def test_private_key_in_the_archive(device: VirtualDevice, tmp_path: Path, command: str) -> None:
    key = subprocess.run(command, shell=True, check=True, capture_output=True).stdout
    bundle = device.sign(packed(RUN, member("d/x", b"first\n" + key)))
    assert check(device, tmp_path, bundle) == (
        1, ["error: member 'd/x': holds a private key, which must never be published"])


def test_strict(device: VirtualDevice, tmp_path: Path) -> None:
    risky = device.sign(ARCHIVES["owner"][0])
    assert check(device, tmp_path, risky, "--strict")[0] == 1
