"""The keys that sign bundles, kept in the build directory."""

import os
import subprocess
import tempfile
from pathlib import Path

RSA = ("genpkey", "-algorithm", "RSA", "-pkeyopt", "rsa_keygen_bits:2048")
ELLIPTIC = ("genpkey", "-algorithm", "EC", "-pkeyopt", "ec_paramgen_curve:P-256")


class Keys:
    """Files under `directory`, made when they are first asked for.

    Any name makes a key pair. That of "dev" is an elliptic curve's, all others are RSA.
    """

    def __init__(self, directory: Path):
        self._directory = directory

    def private(self, name: str) -> Path:
        return self._made(f"{name}.key", *(ELLIPTIC if name == "dev" else RSA))

    def public(self, name: str) -> Path:
        return self._made(f"{name}.pub", "pkey", "-in", self.private(name), "-pubout")

    def _made(self, name: str, *command: str | Path) -> Path:
        path = self._directory / name
        if not path.exists():
            self._directory.mkdir(parents=True, exist_ok=True)
            with tempfile.NamedTemporaryFile(dir=self._directory) as unfinished:
                subprocess.run(["openssl", *command, "-out", unfinished.name], check=True,
                               stderr=subprocess.DEVNULL)
                try:
                    os.link(unfinished.name, path)
                except FileExistsError:
                    pass  # another process was first, and its file counts
        return path
