"""The keys that sign bundles and the certificates of the download server, made once per build directory."""

import subprocess
from pathlib import Path

from device.rootfs import locked

HOST = "bundles.zelo.example"

RSA = ("genpkey", "-algorithm", "RSA", "-pkeyopt", "rsa_keygen_bits:2048")
ELLIPTIC = ("genpkey", "-algorithm", "EC", "-pkeyopt", "ec_paramgen_curve:P-256")


class Keys:
    """Files under `directory`, made when they are first asked for. Any name makes a key pair."""

    def __init__(self, directory: Path):
        self._directory = directory

    def private(self, name: str) -> Path:
        return self._made(f"{name}.key", *RSA)

    def public(self, name: str) -> Path:
        return self._made(f"{name}.pub", "pkey", "-in", self.private(name), "-pubout")

    def authority(self) -> Path:
        """The certificate authority that a device trusts."""
        return self._made("authority.crt", *self._certificate("authority.key", "Virtual device"),
                          "-addext", "basicConstraints=critical,CA:TRUE")

    def server(self, host: str = HOST) -> tuple[Path, Path]:
        """Certificate and key of the server `host`."""
        issuer = ("-CA", self.authority(), "-CAkey", self._made("authority.key", *ELLIPTIC))
        certificate = self._made(f"{host}.crt", *self._certificate(f"{host}.key", host), *issuer,
                                 "-addext", f"subjectAltName=DNS:{host}")
        return certificate, self._made(f"{host}.key", *ELLIPTIC)

    def _certificate(self, key: str, name: str) -> tuple[str | Path, ...]:
        config = self._directory / "request.cnf"  # so that nothing of this machine's configuration counts
        if not config.exists():
            config.parent.mkdir(parents=True, exist_ok=True)
            config.write_text("[req]\ndistinguished_name = name\n[name]\n")
        return ("req", "-x509", "-config", config, "-key", self._made(key, *ELLIPTIC), "-subj", f"/CN={name}",
                "-days", "3650")

    def _made(self, name: str, *command: str | Path) -> Path:
        path = self._directory / name
        if path.exists():
            return path
        with locked(self._directory / f"{name}.lock"):
            if not path.exists():
                unfinished = path.with_name(f"{name}.new")
                subprocess.run(["openssl", *command, "-out", unfinished], check=True, capture_output=True)
                unfinished.rename(path)
        return path
