"""What the checking tool says of bundles; where a device can tell, it must agree."""

import re
import subprocess
from collections.abc import Iterator
from dataclasses import replace
from pathlib import Path

import pytest

from device.bundles import TOOL, Bundle
from device.cases import PROD
from device.virtual_device import VirtualDevice

CHECKER = TOOL.with_name("check-bundle")
PACK = "tar -cz --owner=$owner --group=root:0 $members | head -c $size"


@pytest.fixture(scope="module")
def device(build: Path) -> Iterator[VirtualDevice]:
    with VirtualDevice(build) as device:
        device.set_pref("zelo.installer.download.retries", "0")
        yield device


@pytest.fixture(autouse=True)
def here(tmp_path: Path, monkeypatch: pytest.MonkeyPatch) -> None:
    monkeypatch.chdir(tmp_path)


def packed(commands: str = "") -> bytes:
    """An archive of a good script, after `commands` have changed that or how it is packed."""
    Path("source").mkdir()
    Path("source/run.sh").write_text("#!/bin/sh -e\n")
    Path("source/run.sh").chmod(0o755)
    all_commands = f"owner=root:0; members=*; size=-0; {commands}\n{PACK}"
    return subprocess.check_output(["sh", "-ec", all_commands], cwd="source", stderr=subprocess.DEVNULL)


def judge(device: VirtualDevice, bundle: Bundle, code: str | None, finding: str) -> None:
    """The device shows just this code, or none; the tool has just this finding, or none."""
    device.publish(bundle)
    seen = len(device.shell_lines())
    assert device.start().wait() == 0
    shown = re.findall(r"showError (\d\d)", str(device.shell_lines()[seen:]))
    assert shown == ([code] if code else [])

    Path("document.json").write_bytes(bundle.document)
    Path("bundle.tar.gz").write_bytes(bundle.archive)
    checked = subprocess.run([CHECKER, "document.json", "bundle.tar.gz", device.path(PROD)], text=True,
                             stdout=subprocess.PIPE, check=False, timeout=60)
    findings = re.findall(r"(?:error|warning): .*", checked.stdout)
    assert len(findings) == (1 if finding else 0), findings
    assert finding in str(findings)
    assert checked.returncode == (1 if finding.startswith("error: ") else 0)


EC_KEY = "openssl ecparam -name prime256v1 -genkey -noout"
IS_KEY = "error: member 'x': holds a private key, which must never be published"

# What is done before the script is packed, the code that a device shows, and what the tool finds.
ARCHIVES: dict[str, tuple[str, str | None, str]] = {
    "cut short": ("size=-20", "01", "error: cannot be unpacked: gzip: stdin: unexpected end of file"),
    "link outside": ("ln -s ../y x", None, "warning: member 'x': a link to '../y', outside"),
    "the daemon's": ("touch zelo_installer.tar.gz", None, "warning: member 'zelo_installer.tar.gz':"),
    "below that": ("mkdir zelo_installer.tar.gz; cp run.sh z*; members='*.sh z*/*'", "01", "error: "),
    "owner": ("owner=joe:0", None, "warning: member 'run.sh': belongs to joe:root, not"),
    "leftover": ("touch run.sh~", None, "warning: member 'run.sh~': left by an editor"),
    "itself": ("chmod 0 .; members=.", None, "warning: member '.': sets the mode of the daemon's work"),
    "key": ("openssl genpkey -algorithm ED25519 >x", None, IS_KEY),
    "encrypted key": ("openssl genrsa -traditional -aes256 -passout pass:word >x", None, IS_KEY),
    "key in a script": (f"echo 'cat <<END' >x; {EC_KEY} | sed 's/^/    /' >>x", None, IS_KEY),
    "key in JSON": (rf"{EC_KEY} | sed ':a; N; $!ba; s/\n/\\n/g' >x", None, IS_KEY),

    "no script": ("mkdir d; mv run.sh d", "03", "error: run.sh: there is no such"),
    "not executable": ("chmod 644 run.sh", "03", "error: run.sh: not executable"),
    "no interpreter": ("echo exit 0 >run.sh", "03", "error: run.sh: does not begin"),
    "carriage return": (r"printf '#!/bin/sh -e\r' >run.sh", "03", "error: run.sh: the interpreter line cont"),
    "missing here": ("echo '#!/missing' >run.sh", "03", "warning: run.sh: its interpreter /missing does not"),
    "syntax": ("echo if >>run.sh", "03", "warning: run.sh: sh -n fails here: sh: "),
    "program": ("cp /bin/true run.sh", None, "warning: run.sh: a program, which"),
    "no set -e": (r"printf '#!/bin/sh\n# set -e\n' >run.sh", None, "warning: run.sh: has no set -e"),
    "good": (r"printf '#!/bin/sh -u\n:; set -u -e\n' >run.sh", None, ""),
}


@pytest.mark.parametrize("commands, code, finding", ARCHIVES.values(), ids=ARCHIVES)
def test_archive(device: VirtualDevice, commands: str, code: str | None, finding: str) -> None:
    judge(device, device.sign(packed(commands)), code, finding)


# Text in the document and what replaces it, the code that a device shows, and what the tool finds.
DOCUMENTS: dict[str, tuple[str, str, str | None, str]] = {
    "not JSON": ("}", "", "02", "error: not JSON"),
    "no JSON number": ("{", '{"x": NaN, ', "02", "error: not JSON"),
    "half a character": ("{", r'{"x": "\ud800", ', "02", "error: not JSON"),
    "bad, then good": ("{", '{"url": "http://a/", ', "02", "error: address 'http://a/': devices"),
    "url a number": ("{", '{"url": 1, ', "02", "error: no string member url"),
    "a blank": ("{", '{"url": "https://a b/", ', "02", "error: address 'https://a b/': contains"),
    "a backslash": ("{", '{"url": "https://a\\\\b/", ', "02", "error: address 'https://a"),
    "no port": ("{", '{"url": "https://a:b/", ', "02", "error: address 'https://a:b/': Port could not"),
    "no host": ("{", '{"url": "https:///b", ', "02", "error: address 'https:///b': devices accept only"),
    "its own name": ("{", '{"url": "https://%6cocalHost:1/x", ', "02", "error: address 'https://%6cocalHost"),
    "not ASCII": ("{", '{"url": "https://ä/", ', "02", "warning: address 'https://ä/': contains non-ASCII"),
    "unpadded": ("{", '{"signature": "AAAAAA", ', "00", "error: the signature is not base64 (with"),
    "other signature": ("{", '{"signature": "AAAA", ', "00", "error: the signature does not verify"),
    "folded": ('"signature": "', r'"signature": "\n', None, ""),
}


@pytest.mark.parametrize("old, new, code, finding", DOCUMENTS.values(), ids=DOCUMENTS)
def test_document(device: VirtualDevice, old: str, new: str, code: str | None, finding: str) -> None:
    bundle = device.sign(packed())
    document = bundle.document.decode().replace(old, new)
    judge(device, replace(bundle, document=document.encode()), code, finding)
