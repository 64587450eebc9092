"""What the bundle tool makes, and that it leaves nothing when it refuses."""

import base64
import json
import os
import subprocess
import tarfile
from pathlib import Path

import pytest

from device.bundles import TOOL
from device.keys import Keys

URL = "https://bundles.zelo.example/zelo_installer.tar.gz"


@pytest.fixture
def source(tmp_path: Path) -> Path:
    """A good source directory beside an empty directory `output`."""
    (tmp_path / "output").mkdir()
    (tmp_path / "source" / "data").mkdir(parents=True)
    (tmp_path / "source" / "data" / "file").write_text("content")
    (tmp_path / "source" / "run.sh").write_text("#!/bin/sh\nexit 0\n")
    (tmp_path / "source" / "run.sh").chmod(0o755)
    return tmp_path / "source"


@pytest.fixture
def key(build: Path) -> Path:
    return Keys(build / "device" / "keys").private("prod")


def make(source: Path, key: Path, url: str = URL) -> subprocess.CompletedProcess:
    return subprocess.run([TOOL, "--key", key, "--url", url, "--output", source.parent / "output", source],
                          capture_output=True, text=True, check=False)


def test_makes_the_same_signed_archive_again(source: Path, key: Path) -> None:
    output = source.parent / "output"
    assert make(source, key).returncode == 0
    made = {path.name: path.read_bytes() for path in output.iterdir()}
    assert set(made) == {"zelo_installer.tar.gz", "zelo_installer_meta.json"}

    document = json.loads(made["zelo_installer_meta.json"])
    signature = source.parent / "signature"
    signature.write_bytes(base64.b64decode(document["signature"], validate=True))
    public = Keys(key.parent).public("prod")
    subprocess.run(["openssl", "dgst", "-sha256", "-verify", public, "-signature", signature,
                    output / "zelo_installer.tar.gz"], check=True)
    with tarfile.open(output / "zelo_installer.tar.gz") as tar:
        assert [(m.name, m.uid, m.gid, m.uname) for m in tar] == [
            (name, 0, 0, "") for name in ("data", "data/file", "run.sh")]

    os.utime(source / "run.sh", (1, 1))
    assert make(source, key).returncode == 0
    assert {path.name: path.read_bytes() for path in output.iterdir()} == made


REFUSED_SOURCES = {
    "no script": (lambda s: (s / "run.sh").unlink(), "run.sh: No such file"),
    "script a link": (lambda s: (s / "run.sh").rename(s / "r") and (s / "run.sh").symlink_to("r"), "regular"),
    "not executable": (lambda s: (s / "run.sh").chmod(0o644), "not executable"),
    "no interpreter": (lambda s: (s / "run.sh").write_text("exit 0\n"), "interpreter line"),
    "relative interpreter": (lambda s: (s / "run.sh").write_text("#!sh\n"), "interpreter line"),
    "line ends": (lambda s: (s / "run.sh").write_bytes(b"#!/bin/sh\r\nexit 0\r\n"), "CRLF"),
    "name of the daemon's": (lambda s: (s / "zelo_installer.tar.gz.sig").touch(), "daemon's own"),
    "pipe": (lambda s: os.mkfifo(s / "data" / "pipe"), "neither a file"),
    "output inside": (lambda s: (s / "../output").rename(s / "o") and (s / "../output").symlink_to(s / "o"),
                      "own directory"),
    "document in the way": (lambda s: (s / "../output/zelo_installer_meta.json").mkdir(), "is a directory"),
}


@pytest.mark.parametrize("change, reason", REFUSED_SOURCES.values(), ids=REFUSED_SOURCES)
def test_refuses_a_bad_source(source: Path, key: Path, change, reason: str) -> None:
    change(source)
    before = sorted((source.parent / "output").iterdir())
    done = make(source, key)
    assert (done.returncode, done.stdout) == (1, "") and reason in done.stderr
    assert sorted((source.parent / "output").iterdir()) == before


@pytest.mark.parametrize("url", [
    "http://bundles.zelo.example/x", "https://LocalHost:1/x", "https://localhost.localdomain/x", "https:///x",
    "https://127.0.0.1/x", "https://127.999.0.1/x", "https://%6cocalhost/x", "https:", "bundles.zelo.example",
    "https://a b/", "https://a:port/", "https://a/\n"])
def test_refuses_an_address_that_devices_refuse(source: Path, key: Path, url: str) -> None:
    done = make(source, key, url)
    assert done.returncode == 1 and "address" in done.stderr
    assert not list((source.parent / "output").iterdir())


def test_refuses_what_is_no_key(source: Path, key: Path) -> None:
    for bad in (source / "run.sh", source / "missing", Keys(key.parent).public("prod")):
        done = make(source, bad)
        assert done.returncode == 1 and "make-bundle: " in done.stderr
    assert not list((source.parent / "output").iterdir())
    assert subprocess.run([TOOL, source], capture_output=True, check=False).returncode == 2
