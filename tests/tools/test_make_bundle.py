"""What the bundle tool makes, that it leaves nothing when it refuses, and how the tools end."""

import hashlib
import os
import signal
import subprocess
import tarfile
import time
from pathlib import Path
from typing import Any

import pytest

from device.bundles import TOOL

DOCUMENT, ARCHIVE = Path("new/output/zelo_installer_meta.json"), Path("new/output/zelo_installer.tar.gz")
TOKEN = Path("/usr/lib/softhsm/libsofthsm2.so")
ENGINES = list(Path("/usr/lib").glob("*/engines-3/pkcs11.so"))


@pytest.fixture(autouse=True)
def here(tmp_path: Path, monkeypatch: pytest.MonkeyPatch) -> None:
    """A directory with a source directory and an encrypted key."""
    monkeypatch.chdir(tmp_path)
    Path("source/data").mkdir(parents=True)
    Path("source/data/file").write_text("content")
    Path("source/run.sh").write_text("#!/bin/sh\n: 'a\r\nb'\n")
    Path("source/run.sh").chmod(0o755)
    Path("word").write_text("word\n")
    kind = ("-algorithm", "EC", "-pkeyopt", "ec_paramgen_curve:P-256", "-aes256", "-pass", "file:word")
    subprocess.run(["openssl", "genpkey", *kind, "-out", "key"], check=True)
    subprocess.run("openssl pkey -in key -passin file:word -pubout -out key.pub".split(), check=True)


def command(*options: str) -> list[str]:
    signer = [] if {"--key", "--sign-command"} & {*options} else ["--key", "key", "--passphrase-file", "word"]
    return [str(TOOL), "--url", "https://a.example/b", "--output", "new/output", *signer, *options, "source"]


def make(*options: str, **popen: Any) -> subprocess.CompletedProcess[str]:
    streams: dict[str, Any] = {"stdout": subprocess.PIPE, "stderr": subprocess.PIPE, **popen}
    return subprocess.run(command(*options), text=True, check=False, start_new_session=True, **streams)


def check(*options: str) -> subprocess.CompletedProcess[str]:
    return subprocess.run([TOOL.with_name("check-bundle"), *options, DOCUMENT, ARCHIVE, "key.pub"], text=True,
                          capture_output=True, check=False)


def test_makes_the_same_signed_archive_again() -> None:
    done = make()
    assert (done.returncode, done.stderr.count("\n"), done.stdout.count("\n")) == (0, 1, 1)
    assert "warning: run.sh: has lines" in done.stderr and "key: EC, 256 bits" in done.stdout
    assert {path.name for path in ARCHIVE.parent.iterdir()} == {ARCHIVE.name, DOCUMENT.name}
    with tarfile.open(ARCHIVE) as tar:
        assert [(m.name, m.uid, m.gid, m.uname) for m in tar] == [
            (name, 0, 0, "") for name in ("data", "data/file", "run.sh")]
    made = ARCHIVE.read_bytes()
    done = check("--info")
    assert done.returncode == 0 and {
        "address: https://a.example/b", "key: EC, 256 bits", "members: 3", f"packed: {len(made)} bytes",
        "unpacked: 26 bytes", "room needed in /tmp: 32768 bytes", "interpreter: /bin/sh",
        f"SHA-256: {hashlib.sha256(made).hexdigest()}"} <= {*done.stdout.splitlines()}
    os.utime("source/run.sh", (1, 1))
    assert make().returncode == 0 and ARCHIVE.read_bytes() == made


# What is done first, the options, and the reason that is given.
REFUSED = {
    "by a rule": ("chmod 644 source/run.sh", ("--sign-command", "false"), "error: run.sh: not executable"),
    "address": ("", ("--url", "http://a/"), "error: address http://a/"),
    "no UTF-8": ("", ("--url", "https://\udcff/"), "the address is not UTF-8"),
    "output inside": ("ln -s source o", ("--output", "o/new"), "own directory"),
    "in the way": (f"mkdir -p o/{DOCUMENT.name}", ("--output", "o"), "is a directory"),
    "socket": ("python3 -c 'import socket; socket.socket(1).bind(\"source/s\")'", (), "source/s: a socket"),
    "no key": ("", ("--key", "source/run.sh"), "not a private key"),
    "public key": ("", ("--key", "key.pub"), "key.pub: a public key; it is the private one"),
    "useless key": ("openssl genpkey -algorithm ED25519 -out key", (), "of the kind ED25519"),
    "no passphrase": ("", ("--key", "key"), "see --passphrase-file"),
    "bad passphrase": ("", ("--passphrase-file", "key.pub"), "the passphrase is wrong"),
    "other key": ("openssl genrsa | openssl rsa -pubout -out o", ("--public-key", "o"), "does not verify"),
    "command fails": ("", ("--sign-command", "false"), "false ended with status 1"),
    "command prints text": ("", ("--sign-command", "echo"), "printed text"),
}


@pytest.mark.parametrize("first, options, reason", REFUSED.values(), ids=REFUSED)
def test_refuses_and_leaves_nothing(first: str, options: tuple[str, ...], reason: str) -> None:
    subprocess.run(first, shell=True, check=True, capture_output=True)
    before = sorted(Path().rglob("*"))
    done = make(*options)
    assert (done.returncode, done.stdout) == (1, "") and reason in done.stderr
    assert all(line.startswith("make-bundle: ") for line in done.stderr.splitlines())
    assert sorted(Path().rglob("*")) == before


@pytest.mark.skipif(not (TOKEN.exists() and ENGINES), reason="needs softhsm2 and libengine-pkcs11-openssl")
def test_key_in_a_token(monkeypatch: pytest.MonkeyPatch) -> None:
    Path("tokens").mkdir()
    Path("softhsm2.conf").write_text(f"directories.tokendir = {Path('tokens').absolute()}\n")
    monkeypatch.setenv("SOFTHSM2_CONF", str(Path("softhsm2.conf").absolute()))
    monkeypatch.setenv("PKCS11_MODULE_PATH", str(TOKEN))
    for arguments in ("--init-token --free --so-pin 12345678",
                      "--import key --file-pin word --label signer --id 01"):
        label = ("--token", "zelo") if "--import" in arguments else ("--label", "zelo")
        subprocess.run(["softhsm2-util", *arguments.split(), *label, "--pin", "1234"], check=True)
    Path("key").unlink()
    signer = ("openssl dgst -sha256 -engine pkcs11 -keyform engine "
              "-sign 'pkcs11:token=zelo;object=signer;pin-value=1234'")
    assert "not verified" in make("--sign-command", signer).stderr and check().returncode == 0
    assert make("--sign-command", signer, "--public-key", "key.pub").returncode == 0


@pytest.mark.parametrize("signum", [signal.SIGINT, signal.SIGTERM, signal.SIGHUP])
def test_ends_by_a_signal(signum: signal.Signals) -> None:
    signer = "sh -c 'echo >started; exec sleep 60'"
    with subprocess.Popen(command("--sign-command", signer), stderr=subprocess.PIPE, text=True) as process:
        while not Path("started").exists():
            time.sleep(0.01)
        process.send_signal(signum)
        said = process.communicate()[1]
    assert (process.returncode, said) == (-signum, f"make-bundle: stopped by {signum.name}\n")
    assert {path.name for path in Path().iterdir()} == {"source", "key", "key.pub", "word", "started"}


def test_ends_in_poor_surroundings() -> None:
    with open("/dev/full", "w") as full:
        done = make(stdout=full, env={"PATH": os.environ["PATH"], "TAR_OPTIONS": "--none"})
    assert (done.returncode, done.stderr.splitlines()[1:]) == (
        1, ["make-bundle: written, but standard output: No space left on device"])
    reader, writer = os.pipe()
    os.close(reader)
    done = make(stdout=writer)
    assert done.returncode == -signal.SIGPIPE and done.stderr.count("\n") == 1
    assert make(env={"PATH": "/missing"}).stderr == "make-bundle: tar is needed, and not installed\n"
