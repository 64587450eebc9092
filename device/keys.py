"""The keys that sign bundles."""

import subprocess
from pathlib import Path

RSA = ("-algorithm", "RSA", "-pkeyopt", "rsa_keygen_bits:2048")
ELLIPTIC = ("-algorithm", "EC", "-pkeyopt", "ec_paramgen_curve:P-256")


class Keys:
    """Key pairs in `directory`, made when they are first asked for.

    Any name makes one. That of "dev" is an elliptic curve's, all others are RSA.
    """

    def __init__(self, directory: Path):
        self._directory = directory

    def private(self, name: str) -> Path:
        return self._made(f"{name}.key", "genpkey", *(ELLIPTIC if name == "dev" else RSA))

    def public(self, name: str) -> Path:
        return self._made(f"{name}.pub", "pkey", "-in", self.private(name), "-pubout")

    def _made(self, name: str, *command: str | Path) -> Path:
        path = self._directory / name
        if not path.exists():
            self._directory.mkdir(exist_ok=True)
            subprocess.run(["openssl", *command, "-out", path], check=True, stderr=subprocess.DEVNULL)
        return path
