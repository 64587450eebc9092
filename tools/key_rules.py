"""What devices demand of keys and signatures."""

import re
from pathlib import Path

from programs import run
from report import Report

# One that is there, not just its name in a program: lines of base64 follow, perhaps after headers.
PRIVATE_KEY = re.compile(rb"-----BEGIN (?:[A-Z]+ )?PRIVATE KEY-----"
                         rb"(?:\s|\\[nr]|[A-Za-z-]+: .*\n)*[A-Za-z0-9+/]{40}")


def describe_key(key: Path, report: Report) -> str | None:
    """Kind and size of a public key that devices can use."""
    text = key.read_bytes()
    done = run("openssl", "pkey", "-pubin", "-in", key.absolute(), "-noout", "-text")
    size = re.search(rb"Public-Key: \(([0-9]+) bit", done.stdout)
    # Some versions of openssl take the public half of a private key.
    if b"PRIVATE KEY-----" in text:
        report.error("key-private", key, "a private key, which no device may have")
    elif b"-----BEGIN CERTIFICATE-----" in text:
        report.error("key-certificate", key, "a certificate; devices need the bare public key")
    elif done.returncode != 0:
        report.error("key-unreadable", key, "not a public key that openssl can read")
    elif not size:
        kind = done.stdout.partition(b" ")[0].decode()
        report.error("key-unusable", key, f"devices cannot use {kind} keys; RSA and EC keys work")
    else:
        kind = "RSA" if b"Modulus:" in done.stdout else "EC" if b"OID:" in done.stdout else "other"
        bits = int(size[1])
        if kind != "EC" and bits < 2048:
            report.warning("key-weak", key, f"a weak key, only {bits} bits long")
        report.facts["key"] = f"{kind}, {bits} bits"
        return f"{kind}, {bits} bits"
    return None


def check_signature(signature: bytes, document: Path, archive: Path, key: Path, scratch: Path,
                    report: Report) -> None:
    text, decoded = scratch / "signature", scratch / "signature.sha256"
    text.write_bytes(signature)
    done = run("base64", "-d", text)
    # Not every device's base64 refuses text whose end is missing.
    if done.returncode != 0 or not done.stdout or len(signature.replace(b"\n", b"")) % 4:
        report.error("signature-not-base64", document,
                     "the signature is empty or not base64 (with + and /, padded with =)")
        return
    decoded.write_bytes(done.stdout)
    done = run("openssl", "dgst", "-sha256", "-verify", key.absolute(), "-signature", decoded,
               archive.absolute())
    if done.stdout != b"Verified OK\n":
        report.error("signature-wrong", archive, f"the signature does not verify with {key}")
