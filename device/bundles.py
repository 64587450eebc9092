"""Bundles for a device, made by the tool that bundle authors use."""

import base64
import json
import re
import subprocess
from collections.abc import Mapping
from dataclasses import dataclass, replace
from pathlib import Path
from tempfile import TemporaryDirectory

TOOL = Path(__file__).resolve().parent.parent / "tools" / "make-bundle"

INSTALLED = "/tmp/installed"
RECORD = f"echo installed >>{INSTALLED}"  # for each run of a script of ours
SUCCEEDING_SCRIPT = f"#!/bin/sh\nset -e\n{RECORD}\n"


@dataclass(frozen=True)
class Bundle:
    archive: bytes
    document: bytes

    def with_url(self, url: str) -> "Bundle":
        """The rest of the document stays as it is, whatever is wrong with it."""
        member = json.dumps({"url": url}).strip("{}").encode()
        document = re.sub(rb'"url"\s*:\s*"(\\.|[^"\\])*"', lambda _: member, self.document, count=1)
        return replace(self, document=document)


def pack(source: Path, key: Path, url: str) -> Bundle:
    """A bundle of a directory's files, signed with the private `key`."""
    with TemporaryDirectory() as output:
        command: list[str | Path] = [TOOL, "--key", key, "--url", url, "--output", output, "--", source]
        done = subprocess.run(command, check=False, stdout=subprocess.DEVNULL)
        if done.returncode != 0:
            raise RuntimeError(f"make-bundle makes no bundle of {source}")
        return Bundle(Path(output, "zelo_installer.tar.gz").read_bytes(),
                      Path(output, "zelo_installer_meta.json").read_bytes())


def make_bundle(key: Path, url: str, script: str, files: Mapping[str, bytes]) -> Bundle:
    """A bundle with `script` as its run.sh and further files."""
    with TemporaryDirectory() as source:
        for path, content in {"run.sh": script.encode(), **files}.items():
            file = Path(source, path)
            file.parent.mkdir(parents=True, exist_ok=True)
            file.write_bytes(content)
        Path(source, "run.sh").chmod(0o755)
        return pack(Path(source), key, url)


def sign(key: Path, url: str, archive: bytes) -> Bundle:
    """A bundle of any bytes, signed as they are: for archives that the tool would not make."""
    signature = subprocess.run(["openssl", "dgst", "-sha256", "-sign", key], input=archive, check=True,
                               capture_output=True).stdout
    document = {"url": url, "signature": base64.b64encode(signature).decode()}
    return Bundle(archive, json.dumps(document).encode())
