"""What the checking tool finds in bundles, one table row for each kind of fault."""

import gzip
import io
import json
import subprocess
import tarfile
from pathlib import Path

import pytest

from device.bundles import TOOL, Bundle, make_bundle, sign
from device.keys import Keys

CHECKER = TOOL.with_name("check-bundle")
URL = "https://bundles.zelo.example/b"


@pytest.fixture
def check(build: Path, tmp_path: Path):
    """Runs the tool on a bundle; the key is a name or a path."""
    def run(bundle: Bundle, key: str | Path = "prod") -> subprocess.CompletedProcess:
        document, archive = tmp_path / "document.json", tmp_path / "bundle.tar.gz"
        document.write_bytes(bundle.document)
        archive.write_bytes(bundle.archive)
        key = Keys(build / "device" / "keys").public(key) if isinstance(key, str) else key
        return subprocess.run([CHECKER, document.name, archive.name, key], cwd=tmp_path, text=True,
                              capture_output=True, check=False)
    return run


@pytest.fixture
def key(build: Path) -> Path:
    return Keys(build / "device" / "keys").private("prod")


def test_accepts_what_the_maker_makes(check, key: Path) -> None:
    done = check(make_bundle(key, URL, files={"d/e/file": b"x"}))
    assert (done.returncode, done.stdout, done.stderr) == (0, "bundle.tar.gz: ok\n", "")


def with_members(**changes):
    """Changes members of the document; None takes one away."""
    def change(text: bytes) -> bytes:
        members = {**json.loads(text), **changes}
        return json.dumps({name: value for name, value in members.items() if value is not None}).encode()
    return change


DOCUMENTS = {
    "not JSON": (lambda _: b"{", "not JSON"),
    "not UTF-8": (lambda text: text.decode().encode("utf-16"), "not JSON in UTF-8"),
    "too deep": (lambda _: b"[" * 100000, "not JSON"),
    "no JSON number": (lambda text: text.replace(b"}", b', "x": NaN}'), "NaN"),
    "a list": (lambda _: b"[]", "not a JSON object"),
    "twice": (lambda text: text.replace(b"}", b', "url": "https://a/"}'), "appears twice"),
    "no url": (with_members(url=None), "no string member url"),
    "http": (with_members(url="http://a/"), "https only"),
    "its own address": (with_members(url="https://127.0.0.1/"), "own address"),
    "signature a number": (with_members(signature=1), "no string member signature"),
    "no base64": (with_members(signature="?"), "empty or not base64"),
    "no signature": (with_members(signature=""), "empty or not base64"),
    "other signature": (with_members(signature="AAAA"), "does not verify"),
}


@pytest.mark.parametrize("change, finding", DOCUMENTS.values(), ids=DOCUMENTS)
def test_finds_what_is_wrong_with_the_document(check, key: Path, change, finding: str) -> None:
    good = make_bundle(key, URL)
    done = check(Bundle(good.archive, change(good.document)))
    assert (done.returncode, done.stderr, done.stdout.count("\n")) == (1, "", 1) and finding in done.stdout


def member(name: str, content: bytes = b"", mode: int = 0o755, **fields) -> tuple[tarfile.TarInfo, bytes]:
    info = tarfile.TarInfo(name)
    info.mode, info.size = mode, len(content)
    for field, value in fields.items():
        setattr(info, field, value)
    return info, content


def link(name: str, target: str, kind: bytes = tarfile.SYMTYPE) -> tuple[tarfile.TarInfo, bytes]:
    return member(name, type=kind, linkname=target)


RUN = member("run.sh", b"#!/bin/sh\n")


def packed(*members: tuple[tarfile.TarInfo, bytes]) -> bytes:
    file = io.BytesIO()
    with tarfile.open(mode="w:gz", fileobj=file) as tar:
        for info, content in members:
            tar.addfile(info, io.BytesIO(content))
    return file.getvalue()


ARCHIVES = {
    "not gzip": (gzip.decompress(packed(RUN)), "does not unpack"),
    "cut short": (packed(RUN)[:-20], "does not unpack"),
    "something behind": (packed(RUN) + b"garbage", "does not unpack"),
    "no script": (packed(member("d/run.sh", b"#!/bin/sh\n")), "run.sh: No such file"),
    "script a link": (packed(member("r", b"#!/bin/sh\n"), link("run.sh", "r")), "run.sh: not a regular file"),
    "not executable": (packed(member("run.sh", b"#!/bin/sh\n", 0o644)), "run.sh: not executable"),
    "no interpreter": (packed(member("run.sh", b"exit 0\n")), "run.sh: does not begin"),
    "line ends": (packed(member("run.sh", b"#!/bin/sh\r\n")), "run.sh: has CRLF"),
    "absolute name": (packed(RUN, member("/x")), "member '/x': the name leads out"),
    "name upwards": (packed(RUN, member("d/../../x")), "member 'd/../../x': the name leads out"),
    "link upwards": (packed(RUN, link("d/x", "../../y")), "member 'd/x': a link to '../../y'"),
    "absolute link": (packed(RUN, link("x", "/etc/passwd")), "member 'x': a link to '/etc/passwd'"),
    "link through a link": (packed(RUN, link("here", "."), link("x", "here/..")), "member 'x': a link to"),
    "hard link": (packed(RUN, link("x", "../y", tarfile.LNKTYPE)), "member 'x': a hard link to '../y'"),
    "pipe": (packed(RUN, member("x", type=tarfile.FIFOTYPE)), "member 'x': neither a file"),
    "user": (packed(RUN, member("x", uid=1000)), "member 'x': belongs to 1000:0"),
    "user by name": (packed(RUN, member("x", uname="joe")), "member 'x': belongs to joe:0 (0:0)"),
    "name of the daemon's": (packed(RUN, member("./zelo_installer.tar.gz")), "the daemon's own"),
    "the directory itself": (packed(member("./", type=tarfile.DIRTYPE), RUN), "work directory the mode 0755"),
}


@pytest.mark.parametrize("archive, finding", ARCHIVES.values(), ids=ARCHIVES)
def test_finds_what_is_wrong_with_the_archive(check, key: Path, archive: bytes, finding: str) -> None:
    done = check(sign(key, URL, archive))
    assert (done.returncode, done.stderr) == (1, "") and finding in done.stdout and "verif" not in done.stdout


def test_names_every_fault(check, key: Path) -> None:
    bad = sign(key, "ftp://a/", packed(member("x", uid=1, type=tarfile.FIFOTYPE)))
    assert check(bad, "dev").stdout.count("\n") == 5
    good = make_bundle(key, URL)
    for wrong_key, finding in ((key, "cannot be verified"), (key / "none", "not a readable file"),
                               ("stranger", "does not verify")):
        done = check(good, wrong_key)
        assert (done.returncode, done.stdout.count("\n")) == (1, 1) and finding in done.stdout
    assert "does not verify" in check(good.tampered()).stdout
    assert subprocess.run([CHECKER], capture_output=True, check=False).returncode == 2
