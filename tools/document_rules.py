"""What devices demand of a bundle's document and of the address in it."""

import json
import re
from pathlib import Path
from urllib.parse import unquote, urlsplit

from report import Report

OWN_HOST = re.compile(r"localhost(\.localdomain)?|127(\.[0-9]{1,3}){3}")
SWAPPED = "are the arguments swapped?"


def check_document(document: Path, report: Report) -> str | None:
    """The signature's text, if there is one."""
    members = read_members(document, report)
    if members is None:
        return None
    texts = {name: value for name, value in members.items() if isinstance(value, str)}
    for name in ("url", "signature"):
        if name not in texts:
            report.error("document-member-missing", document, f"no string member {name}")
    if "url" in texts:
        check_address(texts["url"], document, report)
    return texts.get("signature")


def read_members(document: Path, report: Report) -> dict[str, object] | None:
    raw = document.read_bytes()
    if raw.startswith(b"\x1f\x8b"):
        report.error("document-not-json", document, f"not JSON: it looks like an archive; {SWAPPED}")
        return None
    try:
        members = json.loads(raw.decode("utf-8-sig"),
                             object_pairs_hook=lambda pairs: dict(reversed(pairs)),  # the first one counts
                             parse_constant=int)  # which refuses NaN and its like
        json.dumps(members, ensure_ascii=False).encode()  # half of a surrogate pair is refused
    except (ValueError, RecursionError) as error:
        report.error("document-not-json", document, f"not JSON: {error}")
        return None
    if not isinstance(members, dict):
        report.error("document-not-an-object", document, "not a JSON object")
        return None
    return members


def check_address(url: str, document: Path, report: Report) -> None:
    if re.search(r"[\0- \x7f]", url):
        report.error("address-malformed", document, f"address {url!r}: contains a space or control character")
        return
    try:
        parts = urlsplit(url)
        host = unquote(parts.hostname or "").lower()
        _ = parts.port  # parsed, and refused, when it is asked for
    except ValueError as error:
        report.error("address-malformed", document, f"address {url}: {error}")
        return
    if parts.scheme != "https":
        report.error("address-not-https", document, f"address {url}: devices accept https only")
    elif not host:
        report.error("address-malformed", document, f"address {url}: no host")
    elif OWN_HOST.fullmatch(host):
        report.error("address-own", document, f"address {url}: devices refuse their own address {host}")
    if not url.isascii():
        report.warning("address-not-ascii", document, f"address {url}: contains non-ASCII characters")
    report.facts["address"] = url
