"""What devices demand of a bundle's document, address, key and signature, and a report of what was found.

An error is what a device fails at, or what must never be published; a warning is what works, but is risky
or sloppy.
"""

import json
import re
from dataclasses import dataclass, field
from pathlib import Path
from urllib.parse import unquote, urlsplit

from programs import run

OWN_HOST = re.compile(r"localhost(\.localdomain)?|127(\.[0-9]{1,3}){3}")


@dataclass(frozen=True)
class Finding:
    severity: str  # error or warning
    subject: Path
    text: str


@dataclass
class Report:
    findings: list[Finding] = field(default_factory=list)
    facts: dict[str, str] = field(default_factory=dict)

    def error(self, subject: Path, text: str) -> None:
        self.findings.append(Finding("error", subject, text))

    def warning(self, subject: Path, text: str) -> None:
        self.findings.append(Finding("warning", subject, text))

    def has_error(self) -> bool:
        return any(finding.severity == "error" for finding in self.findings)


def check_document(document: Path, report: Report) -> str | None:
    """The signature's text, if there is one."""
    try:
        members = json.loads(document.read_bytes().decode("utf-8-sig"),
                             object_pairs_hook=lambda pairs: dict(reversed(pairs)),  # the first one counts
                             parse_constant=int)  # which refuses NaN and its like
        json.dumps(members, ensure_ascii=False).encode()  # half of a surrogate pair is refused
    except (ValueError, RecursionError) as error:
        report.error(document, f"not JSON: {error}")
        return None
    members = members if isinstance(members, dict) else {}
    texts = {name: value for name, value in members.items() if isinstance(value, str)}
    for name in ("url", "signature"):
        if name not in texts:
            report.error(document, f"no string member {name}")
    if "url" in texts:
        check_address(texts["url"], document, report)
    return texts.get("signature")


def check_address(url: str, document: Path, report: Report) -> None:
    report.facts["address"] = url
    if refusal := why_refused(url):
        report.error(document, f"address {url!r}: {refusal}")
    elif not url.isascii():
        report.warning(document, f"address {url!r}: contains non-ASCII characters")


def why_refused(url: str) -> str | None:
    if re.search(r"[\0- \x7f\\]", url):
        return "contains a space, backslash or control character"
    try:
        parts = urlsplit(url)
        host = unquote(parts.hostname or "").lower()
        _ = parts.port  # parsed, and refused, when it is asked for
    except ValueError as error:
        return str(error)
    if parts.scheme != "https" or not host:
        return "devices accept only https, and need a host"
    return f"devices refuse their own address {host}" if OWN_HOST.fullmatch(host) else None


def check_key(key: Path, report: Report) -> bool:
    """Whether devices can use the public key."""
    if b"PRIVATE KEY-----" in key.read_bytes():
        report.error(key, "a private key, which no device may have")
        return False
    shown = run("openssl", "pkey", "-pubin", "-in", key.absolute(), "-noout", "-text").stdout
    size = re.search(rb"Public-Key: \(([0-9]+) bit", shown)
    if not size:
        report.error(key, "devices cannot use this key; they need a public RSA or EC key in PEM")
        return False
    kind = "RSA" if b"Modulus:" in shown else "EC" if b"OID:" in shown else "other"
    bits = int(size[1])
    if kind != "EC" and bits < 2048:
        report.warning(key, f"a weak key, only {bits} bits long")
    report.facts["key"] = f"{kind}, {bits} bits"
    return True


def check_signature(signature: str, document: Path, archive: Path, key: Path, scratch: Path,
                    report: Report) -> None:
    done = run("base64", "-d", entered=signature.encode())
    # Not every device's base64 refuses text whose end is missing.
    if done.returncode != 0 or len(signature.replace("\n", "")) % 4:
        report.error(document, "the signature is not base64 (with + and /, padded with =)")
        return
    decoded = scratch / "signature"
    decoded.write_bytes(done.stdout)
    done = run("openssl", "dgst", "-sha256", "-verify", key.absolute(), "-signature", decoded,
               archive.absolute())
    if done.stdout != b"Verified OK\n":
        report.error(archive, f"the signature does not verify with {key}")
