"""Signs an archive: with a key in a file, or with a command for a key that is elsewhere."""

import getpass
import subprocess
from pathlib import Path

from command import Failure
from programs import complaint, require_an_exit, run


class PrivateKey:
    """A key in a file; for one that is encrypted, asks for the passphrase if no file has it."""

    def __init__(self, file: Path, passphrase_file: Path | None):
        self._file = file
        is_encrypted = b"ENCRYPTED" in file.read_bytes()
        self._passphrase = passphrase(file, passphrase_file) if is_encrypted else b""

    def public_half(self) -> bytes:
        return self._openssl("pkey", "-pubout", "-in", self._file)

    def sign(self, archive: Path) -> bytes:
        return self._openssl("dgst", "-sha256", "-sign", self._file, archive)

    def _openssl(self, command: str, *arguments: str | Path) -> bytes:
        done = run("openssl", command, "-passin", "stdin", *arguments, entered=self._passphrase + b"\n")
        if done.returncode != 0:
            raise Failure(f"{self._file}: not a private key that openssl can sign with, "
                          f"or the passphrase is wrong: {complaint(done)}")
        return done.stdout


def passphrase(key: Path, file: Path | None) -> bytes:
    if file:
        line = file.read_bytes().partition(b"\n")[0]
        if not line:
            raise Failure(f"{file}: the first line is empty")
        return line
    try:
        with open("/dev/tty"):  # without a terminal, getpass would read standard input
            return getpass.getpass(f"Passphrase of {key}: ").encode()
    except (OSError, EOFError):
        raise Failure(f"{key}: is encrypted, and no passphrase was entered; "
                      "use --passphrase-file") from None


def sign_with_command(archive: Path, command: list[str]) -> bytes:
    # With our terminal and environment: a token asks for its PIN, and has settings.
    done = subprocess.run([*command, archive], stdout=subprocess.PIPE, check=False)
    require_an_exit(command[0], done.returncode)
    if done.returncode != 0:
        raise Failure(f"{command[0]} ended with status {done.returncode}")
    if done.stdout.isascii():
        raise Failure(f"{command[0]} printed text, or nothing, instead of the signature's bytes")
    return done.stdout
