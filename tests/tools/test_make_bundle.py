"""What the bundle tool makes, that it leaves nothing when it refuses, and how it ends."""

import os
import signal
import subprocess
import tarfile
from pathlib import Path

import pytest

from device.bundles import TOOL

CHECKER = TOOL.with_name("check-bundle")
ARCHIVE = Path("new/output/zelo_installer.tar.gz")
DOCUMENT = Path("new/output/zelo_installer_meta.json")
SIGNER = "openssl dgst -sha256 -sign key -passin env:WORD"


@pytest.fixture(autouse=True)
def here(tmp_path: Path, monkeypatch: pytest.MonkeyPatch) -> None:
    """A directory with a source directory and an encrypted key, and the passphrase in a file and in WORD."""
    monkeypatch.chdir(tmp_path)
    monkeypatch.setenv("WORD", "word")
    Path("source/data").mkdir(parents=True)
    Path("source/run.sh").write_text("#!/bin/sh -e\n")
    Path("source/run.sh").chmod(0o755)
    Path("word").write_text("word\n")
    shell("openssl genpkey -algorithm EC -pkeyopt ec_paramgen_curve:P-256 -aes256 -pass file:word -out key")
    shell("openssl pkey -in key -passin file:word -pubout -out key.pub")


def shell(command: str) -> None:
    subprocess.run(command, shell=True, check=True, capture_output=True)


def make(*options: str, stdout: int = subprocess.PIPE) -> subprocess.CompletedProcess[str]:
    signer = [] if {"--key", "--sign-command"} & {*options} else ["--key", "key", "--passphrase-file", "word"]
    command = [str(TOOL), "--url", "https://a.example/b", "--output", "new/output", *signer]
    return subprocess.run([*command, *options, "source"], text=True, check=False, timeout=60,
                          stdout=stdout, stderr=subprocess.PIPE)


def test_makes_the_same_archive_again() -> None:
    shell("touch source/x~")
    assert make().stderr == "make-bundle: warning: member 'x~': left by an editor or version control\n"
    with tarfile.open(ARCHIVE) as tar:
        members = [(member.name, member.uid, member.gid, member.uname, member.mtime) for member in tar]
    assert members == [(name, 0, 0, "", 86400) for name in ("data", "run.sh", "x~")]

    made = ARCHIVE.read_bytes()
    os.utime("source/run.sh", (1, 1))
    assert make().returncode == 0
    assert ARCHIVE.read_bytes() == made
    assert subprocess.call([CHECKER, DOCUMENT, ARCHIVE, "key.pub"]) == 0
    assert subprocess.call([CHECKER, DOCUMENT, ARCHIVE, "key.pub", "--strict"]) == 1


# What is done first, the options, the exit status, and the reason that is given.
REFUSED = {
    "address": ("", ("--url", "http://a/"), 1, "error: address 'http://a/'"),
    "its key, no PEM": ("openssl pkey -in key -passin file:word -outform DER -out der; cp der source",
                        ("--key", "der"), 1, "error: member 'der': holds a private key"),
    "output inside": ("ln -s source o", ("--output", "o/new"), 1, "o/new: is inside SOURCE_DIR"),
    "missing key": ("", ("--key", "none"), 1, "none: No such file or directory"),
    "useless key": ("openssl genpkey -algorithm ED25519 -out key", (), 1, "devices cannot use this key"),
    "bad passphrase": ("", ("--passphrase-file", "key.pub"), 1, "the passphrase is wrong"),
    "no passphrase": ("echo >word", (), 1, "word: the first line is empty"),
    "other key": ("openssl genrsa | openssl rsa -pubout -out o", ("--public-key", "o"), 1, "does not verify"),
    "private key": ("", ("--public-key", "key"), 1, "error: a private key, which no device may have"),
    "command fails": ("", ("--sign-command", "false", "--no-verify"), 1, "false ended with status 1"),
    "text": ("", ("--sign-command", "echo", "--no-verify"), 1, "echo printed text, or nothing, instead"),
    "no public key": ("", ("--sign-command", SIGNER), 2, "needs --public-key"),
}


@pytest.mark.parametrize("first, options, status, reason", REFUSED.values(), ids=REFUSED)
def test_refuses_and_leaves_nothing(first: str, options: tuple[str, ...], status: int, reason: str) -> None:
    shell(first)
    before = sorted(Path().rglob("*"))
    done = make(*options)
    assert (done.returncode, done.stdout) == (status, "")
    assert reason in done.stderr.splitlines()[-1]
    assert sorted(Path().rglob("*")) == before


def test_signs_with_a_command() -> None:
    shell("openssl genrsa -out plain 1024; openssl pkey -in plain -pubout -out plain.pub")
    done = make("--sign-command", "openssl dgst -sha256 -sign plain", "--public-key", "plain.pub")
    assert done.stderr == "make-bundle: warning: a weak key, only 1024 bits long\n"
    assert make("--sign-command", SIGNER, "--no-verify").stdout.endswith("key: not verified\n")


def test_leaves_nothing_after_a_signal() -> None:
    before = sorted(Path().rglob("*"))
    done = make("--sign-command", "sh -c 'sleep 1; kill -HUP $PPID; exec sleep 100'", "--no-verify")
    assert (done.returncode, done.stderr) == (-signal.SIGHUP, "make-bundle: stopped by SIGHUP\n")
    assert sorted(Path().rglob("*")) == before


def test_ends_without_a_reader() -> None:
    reader, writer = os.pipe()
    os.close(reader)
    done = make(stdout=writer)
    assert (done.returncode, done.stderr) == (-signal.SIGPIPE, "")
