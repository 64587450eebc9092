"""What the checking tool says of bundles; where a device can tell, it must agree."""

import gzip
import io
import json
import lzma
import re
import subprocess
import tarfile
from collections.abc import Callable, Iterator
from dataclasses import replace
from pathlib import Path

import pytest

from device.bundles import TOOL, Bundle
from device.virtual_device import VirtualDevice

KEY = "/etc/zelo/pubkeyprod.pem"

Change = Callable[[VirtualDevice], Bundle]
Member = tuple[tarfile.TarInfo, bytes]


def member(name: str, content: bytes = b"", mode: int = 0o755, **fields: object) -> Member:
    info = tarfile.TarInfo(name)
    info.mode, info.size = mode, len(content)
    for field, value in fields.items():
        setattr(info, field, value)
    return info, content


def link(name: str, target: str, kind: bytes = tarfile.SYMTYPE) -> Member:
    return member(name, type=kind, linkname=target)


def packed(*members: Member) -> bytes:
    file = io.BytesIO()
    with tarfile.open(mode="w:gz", fileobj=file) as tar:
        for info, content in members:
            tar.addfile(info, io.BytesIO(content))
    return file.getvalue()


RUN = member("run.sh", b"#!/bin/sh\n")
GOOD = packed(RUN)
TAR = gzip.decompress(GOOD)


def script(text: bytes, mode: int = 0o755) -> bytes:
    return packed(member("run.sh", text, mode))


def text(change: Callable[[bytes], bytes]) -> Change:
    return lambda d: replace(good := d.sign(GOOD), document=change(good.document))


def value(name: str, change: Callable[[str], object]) -> Change:
    return text(lambda old: json.dumps({**json.loads(old), name: change(json.loads(old)[name])}).encode())


def other_key(device: VirtualDevice) -> Bundle:
    device.install_key(KEY, "dev")
    return device.sign(GOOD)


# An archive or another change, the code that a device shows (... where they differ), what the tool says.
ROWS: dict[str, tuple[bytes | Change, object, str]] = {
    "not JSON": (text(lambda _: b"{"), "02", "error: not JSON"),
    "tab, no UTF-8": (text(lambda old: old.replace(b"}", b', "x": "\t\xff"}')), None, "warning: not all of"),
    "too deep": (text(lambda _: b"[" * 100000), "02", "error: not JSON"),
    "no JSON number": (text(lambda old: old.replace(b"}", b', "x": NaN}')), "02", "error: not JSON: NaN"),
    "null byte": (text(lambda old: old.replace(b"}", b', "x": "\0"}')), "02", "error: not JSON"),
    "half a pair": (text(lambda old: old.replace(b"}", b', "x": "\\ud800"}')), "02", "half of a surrogate"),
    "more after it": (text(lambda old: old + b"garbage"), None, "warning: something follows"),
    "arguments swapped": (text(lambda _: GOOD), "02", "arguments swapped?"),
    "good, then bad": (text(lambda old: old.replace(b"}", b', "url": 1}')), None, "warning: a member"),
    "bad, then good": (text(lambda old: b'{"url": "http://a/", ' + old[1:]), "02", "error: address http"),
    "ends early": (text(lambda old: b'{"url\\u0000": "http://a/", ' + old[1:]), "02", "error: address http"),
    "null character": (value("url", lambda url: f"{url}\0/x"), None, "warning: member url holds"),
    "url a number": (value("url", lambda _: 1), "02", "error: no string member url"),
    "blank": (value("url", lambda url: f"{url} x"), "02", "holds a blank"),
    "its own name": (value("url", lambda _: "https://%6cocalHost:1/x"), "02", "their own address localhost"),
    "its own number": (value("url", lambda _: "https://127.999.0.1/x"), "02", "their own address 127.999"),
    "no port": (value("url", lambda _: "https://a:port/"), "02", "error: address"),
    "no host": (value("url", lambda _: "https:///x"), "02", "no host"),
    "encoded null": (value("url", lambda _: "https://a%00b/x"), "02", "no download from the host"),

    "no signature": (value("signature", lambda _: ""), "00", "error: the signature is empty"),
    "url-safe": (value("signature", lambda old: "-" + old[1:]), "00", "or not base64"),
    "no padding": (value("signature", lambda old: old.rstrip("=")), ..., "base64"),
    "folded": (value("signature", lambda old: f"{old[:76]}\n{old[76:]}\n"), None, "bundle.tar.gz: ok"),
    "other key": (other_key, "00", "error: the signature does not verify"),

    "empty": (b"", "01", "error: does not unpack: it is empty"),
    "not compressed": (TAR, "01", "but not compressed with gzip"),
    "xz": (lzma.compress(TAR), "01", "with xz, not gzip"),
    "cut short": (GOOD[:-20], "01", "gzip: stdin: unexpected end of file"),
    "trailing bytes": (GOOD + b"garbage", "01", "trailing garbage"),
    "absolute name": (packed(RUN, member("/x")), None, "warning: member '/x': the name is absolute"),
    "link to a link": (packed(RUN, link("x", "../y"), link("h", "x", tarfile.LNKTYPE)), None,
                       "warning: member 'h': a link to '../y', out of"),
    "pipe": (packed(RUN, member("x", type=tarfile.FIFOTYPE)), None, "warning: member 'x': neither a file"),
    "the daemon's": (packed(RUN, member("./zelo_installer.tar.gz")), None, "warning: member './zelo_"),
    "in its way": (packed(RUN, member("zelo_installer.tar.gz/x")), "01", "error: does not unpack"),
    "itself": (packed(member(".", type=tarfile.DIRTYPE, mode=0), RUN), None, "work directory the mode 0000"),
    "closed directory": (packed(RUN, member("d", type=tarfile.DIRTYPE, mode=0), member("d/x")), None, ": ok"),

    "no script": (packed(member("d/run.sh", b"#!/bin/sh\n")), "03", "error: run.sh: No such file"),
    "link": (packed(member("r", b"#!/bin/sh\n"), link("run.sh", "r")), None, "bundle.tar.gz: ok"),
    "link out": (packed(link("run.sh", "/bin/sh")), None, "warning: run.sh: a link out of the directory"),
    "not executable": (script(b"#!/bin/sh\n", 0o644), "03", "error: run.sh: not executable"),
    "for the group": (script(b"#!/bin/sh", 0o010), None, "bundle.tar.gz: ok"),
    "no interpreter": (script(b"exit 0\n"), "03", "error: run.sh: does not begin"),
    "relative": (script(b"#!sh\n"), "03", "error: run.sh: the interpreter sh has no absolute path"),
    "carriage return": (script(b"#!/bin/sh\r"), "03", "error: run.sh: the interpreter line holds"),
    "quoted line end": (script(b"#!/bin/sh\n: 'a\r\nb'\nexit 0\n\1\r\n"), None, "warning: run.sh: has lines"),
    "run by a directory": (script(b"#!/tmp\n"), "03", "error: run.sh: the interpreter /tmp is no program"),
    "long name": (script(b"#!" + b"/" * 297 + b"bin/sh\n"), "03", "longer than kernels read"),
    "longish name": (script(b"#!" + b"/" * 240 + b"bin/sh\n"), None, "longer than kernels before 5.1 read"),
    "program": (script(Path("/bin/true").read_bytes()), None, "warning: run.sh: a program, which"),
}


@pytest.fixture(scope="module")
def device(build: Path) -> Iterator[VirtualDevice]:
    with VirtualDevice(build) as device:
        device.set_pref("zelo.installer.download.retries", "0")
        yield device


def check(directory: Path, bundle: Bundle, key: Path, *options: str) -> subprocess.CompletedProcess[str]:
    (directory / "document.json").write_bytes(bundle.document)
    (directory / "bundle.tar.gz").write_bytes(bundle.archive)
    return subprocess.run([TOOL.with_name("check-bundle"), *options, "document.json", "bundle.tar.gz", key],
                          cwd=directory, text=True, capture_output=True, check=False)


@pytest.mark.parametrize("change, code, says", ROWS.values(), ids=ROWS)
def test_agrees_with_a_device(device: VirtualDevice, tmp_path: Path, change: bytes | Change, code: object,
                              says: str) -> None:
    device.install_key(KEY, "prod")
    seen = len(device.shell_lines())
    bundle = device.sign(change) if isinstance(change, bytes) else change(device)
    device.publish(bundle)
    assert device.start().wait() == 0
    shown = re.findall(r"showError (\d\d)", str(device.shell_lines()[seen:]))
    done = check(tmp_path, bundle, device.path(KEY))
    assert code in (*(shown or [None]), ...)
    assert (done.returncode, done.stderr) == (len(shown), "") and says in done.stdout, done.stdout


def test_what_no_device_tells(device: VirtualDevice, tmp_path: Path) -> None:
    public, private = device.keys.public("prod"), device.keys.private("prod")
    owned = device.sign(packed(RUN, member("x", uname="joe")))
    for host in ("[::1]", "127.1", "localhost.", "[::ffff:127.0.0.1]", "0"):
        done = check(tmp_path, value("url", lambda _: f"https://{host}/")(device), public)
        assert done.returncode == 0 and "own address" in done.stdout
    for bundle, key, option, status, says in (
            (owned, public, (), 0, "warning: member 'x': belongs to joe:0 (0:0)"),
            (owned, public, ("--strict",), 1, "warning: member 'x'"),
            (text(lambda old: old.replace(b"//", b"//\xff", 1))(device), public, (), 0, "not ASCII"),
            (owned, private, (), 1, "error: a private key"),
            (owned, device.path("/etc/ssl/certs/ca-certificates.crt"), (), 1, "error: a certificate"),
            (owned, device.path(KEY + ".missing"), (), 2, "not a readable file")):
        done = check(tmp_path, bundle, key, *option)
        assert done.returncode == status and says in (done.stdout or done.stderr)
