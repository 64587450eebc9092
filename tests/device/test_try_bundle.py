"""What an author is shown of a bundle's run on the virtual device."""

import os
import subprocess
import sys
from pathlib import Path

from device.bundles import pack
from device.keys import Keys

ROOT = Path(__file__).resolve().parents[2]
SCRIPT = """#!/bin/sh -e
awk 'BEGIN { print "noise" > "/dev/stderr" }'
mkdir /new; rm /etc/nsswitch.conf; echo >> /etc/hosts; chmod 600 /etc/passwd
head -c 500000 /bin/busybox > /tmp/x
"""
CHANGES = ["changed  /etc/hosts (content)", "removed  /etc/nsswitch.conf",
           "changed  /etc/passwd (mode 0644 -> 0600)", "added    /new (directory, 0755, 0:0)",
           "added    /tmp/x (file, 0644, 0:0)"]


def attempt(build: Path, *arguments: str | Path) -> tuple[int, str]:
    done = subprocess.run([sys.executable, "-m", "device.try_bundle", *arguments], check=False, text=True,
                          stdout=subprocess.PIPE, cwd=ROOT, env={**os.environ, "ZELO_BUILD_DIR": str(build)})
    return done.returncode, done.stdout


def test_what_an_author_is_shown(build: Path, tmp_path: Path) -> None:
    source, document, archive = tmp_path / "bundle", tmp_path / "document", tmp_path / "archive"
    keys = Keys(tmp_path / "keys")
    source.mkdir()
    (source / "run.sh").write_text(SCRIPT)
    (source / "run.sh").chmod(0o755)
    status, said = attempt(build, source)
    changes = said.partition("apart:\n")[2].partition("exit status")[0].splitlines()
    assert (status, [line.strip() for line in changes]) == (0, CHANGES), said
    assert "\n  noise\n" in said and "s  Running installer\n" in said and said.endswith("\ninstalled\n")
    assert int(said.partition("in /tmp: ")[2].split()[0]) > 500000

    assert attempt(build, source, "--bare")[1].endswith("code 03\n")  # without awk
    bundle = pack(source, keys.private("author"), "https://bundles.example.com/x")
    document.write_bytes(bundle.document.replace(b"}", b', "signature": "the second one"}'))
    archive.write_bytes(bundle.archive)
    assert attempt(build, document, archive, "--key", keys.public("author"))[0] == 0
    status, said = attempt(build, document, archive, "--key", keys.public("other"))
    assert status == 1 and said.endswith("code 00\n") and "error: the signature does not verify" in said
