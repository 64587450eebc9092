"""What the bundle tool makes, that it leaves nothing when it refuses, and how the tools end."""

import hashlib
import os
import signal
import subprocess
import tarfile
from pathlib import Path
from typing import Any

import pytest

from device.bundles import TOOL

ARCHIVE = Path("new/output/zelo_installer.tar.gz")
DOCUMENT = Path("new/output/zelo_installer_meta.json")
SIGNER = "openssl dgst -sha256 -sign key -passin env:WORD"


@pytest.fixture(autouse=True)
def here(tmp_path: Path, monkeypatch: pytest.MonkeyPatch) -> None:
    """A directory with a source directory and an encrypted key, and the passphrase in a file and in WORD."""
    monkeypatch.chdir(tmp_path)
    Path("zelo-make-bundle").symlink_to(TOOL)
    monkeypatch.setenv("WORD", "word")
    Path("source/data").mkdir(parents=True)
    Path("source/data/file").write_text("content")
    Path("source/run.sh").write_text("#!/bin/sh -e\n")
    Path("source/run.sh").chmod(0o755)
    Path("word").write_text("word\n")
    shell("openssl genpkey -algorithm EC -pkeyopt ec_paramgen_curve:P-256 -aes256 -pass file:word -out key")
    shell("openssl pkey -in key -passin file:word -pubout -out key.pub")


def shell(command: str) -> None:
    subprocess.run(command, shell=True, check=True, capture_output=True)


def make(*options: str, **popen: Any) -> subprocess.CompletedProcess[str]:
    signer = [] if {"--key", "--sign-command"} & {*options} else ["--key", "key", "--passphrase-file", "word"]
    command = ["./zelo-make-bundle", "--url", "https://a.example/b", "--output", "new/output", *signer]
    streams: dict[str, Any] = {"stdout": subprocess.PIPE, "stderr": subprocess.PIPE, **popen}
    # Without a terminal, which a passphrase could be asked on.
    return subprocess.run([*command, *options, "source"], text=True, check=False, timeout=60,
                          start_new_session=True, **streams)


def check(*options: str, **popen: Any) -> subprocess.CompletedProcess[str]:
    streams: dict[str, Any] = {"stdout": subprocess.PIPE, "stderr": subprocess.PIPE, **popen}
    command: list[str | Path] = [TOOL.with_name("check-bundle"), *options, DOCUMENT, ARCHIVE, "key.pub"]
    return subprocess.run(command, text=True, check=False, timeout=60, **streams)


def test_makes_a_bundle() -> None:
    done = make(env={**os.environ, "TAR_OPTIONS": "--none", "TMPDIR": "/dev/shm"})  # another file system
    assert done.returncode == 0
    assert done.stderr == ""
    archive = ARCHIVE.read_bytes()
    digest = hashlib.sha256(archive).hexdigest()
    assert done.stdout == (f"{ARCHIVE}: {len(archive)} bytes, SHA-256 {digest}; "
                           f"{DOCUMENT}: {DOCUMENT.stat().st_size} bytes; key: EC, 256 bits\n")
    assert {path.name for path in ARCHIVE.parent.iterdir()} == {ARCHIVE.name, DOCUMENT.name}
    with tarfile.open(ARCHIVE) as tar:
        members = [(member.name, member.uid, member.gid, member.uname, member.mtime) for member in tar]
    assert members == [(name, 0, 0, "", 86400) for name in ("data", "data/file", "run.sh")]

    assert check("--info").stdout.splitlines() == [
        "address: https://a.example/b", "key: EC, 256 bits", f"SHA-256: {digest}", "members: 3",
        f"packed: {len(archive)} bytes", "unpacked: 20 bytes", "room needed in /tmp: 32768 bytes",
        "interpreter: /bin/sh", f"{ARCHIVE}: ok"]


def test_makes_the_same_archive_again() -> None:
    make()
    made = ARCHIVE.read_bytes()
    assert made[4:8] == bytes(4)  # no time in gzip's header
    os.utime("source/run.sh", (1, 1))
    assert make().returncode == 0
    assert ARCHIVE.read_bytes() == made


# What is done first, the options, the exit status, and the reason that is given.
REFUSED = {
    "by a rule": ("chmod 644 source/run.sh", ("--sign-command", "false", "--no-verify"), 1,
                  "error: run.sh: not executable"),
    "address": ("", ("--url", "http://a/"), 1, "error: address http://a/"),
    "its key": ("cp key source/data/x", (), 1, "error: member 'data/x': holds a private key"),
    "its key, no PEM": ("openssl pkey -in key -passin file:word -outform DER -out der; cp der source",
                        ("--key", "der"), 1, "error: member 'der': holds a private key"),
    "output inside": ("ln -s source o", ("--output", "o/new"), 1, "o/new: is inside SOURCE_DIR"),
    "empty key": ("", ("--key", "/dev/null"), 1, "not a private key"),
    "public key": ("", ("--key", "key.pub"), 1, "key.pub: a public key; a private one is needed"),
    "useless key": ("openssl genpkey -algorithm ED25519 -out key", (), 1, "cannot use ED25519 keys"),
    "no passphrase": ("", ("--key", "key"), 1, "use --passphrase-file"),
    "bad passphrase": ("", ("--passphrase-file", "key.pub"), 1, "the passphrase is wrong"),
    "empty passphrase": ("echo >empty", ("--passphrase-file", "empty"), 1, "empty: the first line is empty"),
    "other key": ("openssl genrsa | openssl rsa -pubout -out o", ("--public-key", "o"), 1, "does not verify"),
    "command fails": ("", ("--sign-command", "false", "--no-verify"), 1, "false ended with status 1"),
    "command killed": ("", ("--sign-command", "sh -c 'kill -KILL $$'", "--no-verify"), 1,
                       "sh was killed by SIGKILL"),
    "command prints text": ("", ("--sign-command", "echo", "--no-verify"), 1, "printed text"),

    "no public key": ("", ("--sign-command", SIGNER), 2, "needs --public-key"),
    "nothing to verify": ("", ("--key", "key", "--no-verify"), 2, "--no-verify: only for --sign-command"),
    "no key to open": ("", ("--sign-command", SIGNER, "--no-verify", "--passphrase-file", "word"), 2,
                       "--passphrase-file: only for --key"),
    "empty command": ("", ("--sign-command", "", "--no-verify"), 2, "--sign-command: empty"),
}


@pytest.mark.parametrize("first, options, status, reason", REFUSED.values(), ids=REFUSED)
def test_refuses_and_leaves_nothing(first: str, options: tuple[str, ...], status: int, reason: str) -> None:
    shell(first)
    before = sorted(Path().rglob("*"))
    done = make(*options)
    assert done.returncode == status
    assert done.stdout == ""
    assert reason in done.stderr.splitlines()[-1]
    assert done.stderr.splitlines()[-1].startswith("zelo-make-bundle: ")
    assert sorted(Path().rglob("*")) == before


def test_signs_with_a_command() -> None:
    done = make("--sign-command", SIGNER, "--public-key", "key.pub")
    assert done.returncode == 0, done.stderr
    assert done.stdout.endswith("key: EC, 256 bits\n")
    assert check().returncode == 0

    done = make("--sign-command", SIGNER, "--no-verify")
    assert done.stdout.endswith("key: not verified\n")
    assert check().returncode == 0


def test_warns() -> None:
    shell("openssl genrsa -out key 1024")
    done = make("--url", "https://a.example/ä")
    assert done.returncode == 0
    assert done.stderr.splitlines() == [
        "zelo-make-bundle: warning: address https://a.example/ä: contains non-ASCII characters",
        "zelo-make-bundle: warning: a weak key, only 1024 bits long"]


def test_leaves_nothing_after_a_signal() -> None:
    before = sorted(Path().rglob("*"))
    done = make("--sign-command", "sh -c 'kill -HUP $PPID; exec sleep 5'", "--no-verify")
    assert (done.returncode, done.stderr) == (-signal.SIGHUP, "zelo-make-bundle: stopped by SIGHUP\n")
    assert sorted(Path().rglob("*")) == before


def test_ends_without_a_reader() -> None:
    reader, writer = os.pipe()
    os.close(reader)
    done = make(stdout=writer)
    assert done.returncode == -signal.SIGPIPE
    assert done.stderr == ""
    with open("/dev/full", "w") as full:
        done = check(stdout=full)
    assert done.returncode == 2
    assert done.stderr == "check-bundle: standard output: No space left on device\n"


def test_any_file_name_and_closed_descriptors() -> None:
    make()
    os.rename(ARCHIVE, b"caf\xe9")
    command: list[str | bytes | Path] = [TOOL.with_name("check-bundle"), DOCUMENT, b"caf\xe9", "key.pub"]
    assert subprocess.check_output(command, timeout=60) == b"caf\\udce9: ok\n"
    closing = ["sh", "-c", 'exec "$@" <&- >&- 2>&-', "sh"]
    assert subprocess.call([*closing, *command], timeout=60) == 0


@pytest.mark.parametrize("tar, says", [
    ("echo 'x: No space left on device' >&2; exit 2", "tar: No space left on device"),
    ("kill -KILL $$", "tar was killed by SIGKILL"),
    (None, "tar is not installed")])
def test_tar_cannot_do_its_work(tar: str | None, says: str) -> None:
    Path("bin").mkdir()
    if tar:
        Path("bin/tar").write_text(f"#!/bin/sh\n{tar}\n")
        Path("bin/tar").chmod(0o755)
    assert make(env={"PATH": "bin"}).stderr == f"zelo-make-bundle: {says}\n"
