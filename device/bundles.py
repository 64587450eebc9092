"""Bundles for a device, made by the tool that bundle authors use."""

import base64
import json
import subprocess
from collections.abc import Mapping
from dataclasses import dataclass, replace
from pathlib import Path
from tempfile import TemporaryDirectory

TOOL = Path(__file__).resolve().parent.parent / "tools" / "make-bundle"

SUCCEEDING_SCRIPT = "#!/bin/sh\necho installed > /tmp/installed\n"


@dataclass(frozen=True)
class Bundle:
    archive: bytes
    document: bytes

    def with_url(self, url: str) -> "Bundle":
        return replace(self, document=json.dumps({**json.loads(self.document), "url": url}).encode())

    def tampered(self) -> "Bundle":
        """One bit of the archive differs from what was signed."""
        return replace(self, archive=self.archive[:-1] + bytes([self.archive[-1] ^ 1]))


def make_bundle(key: Path, url: str, script: str = SUCCEEDING_SCRIPT,
                files: Mapping[str, bytes] | None = None) -> Bundle:
    """A bundle with `script` as its run.sh and further files, signed with the private `key`."""
    with TemporaryDirectory(prefix="zb.") as name:
        source, output = Path(name, "source"), Path(name, "output")
        for path, content in {"run.sh": script.encode(), **(files or {})}.items():
            file = source / path
            file.parent.mkdir(parents=True, exist_ok=True)
            file.write_bytes(content)
        (source / "run.sh").chmod(0o755)
        subprocess.run([TOOL, "--key", key, "--url", url, "--output", output, source], check=True,
                       stdout=subprocess.DEVNULL)
        return Bundle((output / "zelo_installer.tar.gz").read_bytes(),
                      (output / "zelo_installer_meta.json").read_bytes())


def sign(key: Path, url: str, archive: bytes) -> Bundle:
    """A bundle of any bytes, signed as they are: for archives that the tool would not make."""
    signature = subprocess.run(["openssl", "dgst", "-sha256", "-sign", key], input=archive, check=True,
                               capture_output=True).stdout
    document = {"url": url, "signature": base64.b64encode(signature).decode()}
    return Bundle(archive, json.dumps(document).encode())
