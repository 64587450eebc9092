"""Runs a bundle of yours on the virtual device, and shows what it does there."""

import signal

if __name__ == "__main__" and signal.getsignal(signal.SIGINT) != signal.SIG_IGN:
    signal.signal(signal.SIGINT, signal.SIG_DFL)  # or Ctrl-C during the imports would show a traceback

import argparse
import hashlib
import os
import re
import stat
import subprocess
import sys
import tempfile
import textwrap
import time
from collections.abc import Iterator
from dataclasses import dataclass
from pathlib import Path

from device import command_line
from device.bundles import TOOL, Bundle, pack
from device.run import Run
from device.virtual_device import ARCHIVE, VirtualDevice

KEY = "/etc/zelo/pubkeyprod.pem"
CHECKER = TOOL.with_name("check-bundle")
TIMEOUT = "zelo.installer.download.timeout.seconds"
RETRIES = "zelo.installer.download.retries"
BUSYBOX = "/usr/bin/busybox"
USERS = {"/etc/passwd": "root:x:0:0:root:/:/bin/sh\nnobody:x:65534:65534:nobody:/:/bin/false\n",
         "/etc/group": "root:x:0:\nnogroup:x:65534:\n"}
LEVELS = {3: "err", 4: "warning", 5: "notice"}
# What the daemon and the services leave, whatever the bundle.
NOT_THE_BUNDLE = re.compile(r"/tmp/zeloinstall\.[^/]*(/.*)?|/var/run/zeloinstall\.pid|/run/transfer/.*")
# The virtual device needs its own of these, or puts its own in their place.
OWN = re.compile(r"(/usr)?/s?bin/(zeloinstall|transfer-service|vestrel|kbus-set-prop|kbus-send-event)"
                 r"|/(dev|proc)(/.*)?|/run/(kbus\.sock|transfer)(/.*)?|/usr/lib/virtual-device/.*"
                 r"|/etc/(hosts|nsswitch\.conf|device-info|zelo/pubkey(prod|dev)\.pem)"
                 r"|/etc/ssl/certs/ca-certificates\.crt|/")


def setting(text: str) -> list[str]:
    """Key and value."""
    if not re.match(r"(?!\.\.?=)[^/=]+=", text):
        raise argparse.ArgumentTypeError(f"{text}: KEY=VALUE is wanted, with no / in KEY")
    return text.split("=", 1)


def addition(text: str) -> tuple[str, Path]:
    """Path on the device, and the path here of what to put there."""
    here, _, there = text.partition(":")
    if not Path(here).is_file():
        raise argparse.ArgumentTypeError(f"{text}: {here} is not a file")
    there = os.path.normpath("/" + (there or os.path.abspath(here)).lstrip("/"))
    if OWN.fullmatch(there):
        raise argparse.ArgumentTypeError(f"{text}: the device has its own {there}")
    return there, Path(here).resolve()


def parse_arguments() -> argparse.Namespace:
    parser = argparse.ArgumentParser(
        prog="./try-bundle", description=__doc__, usage="%(prog)s [OPTION]... DIRECTORY | DOCUMENT ARCHIVE",
        epilog="A failed download is not repeated, unless --setting says so. Exit status: 0 when the bundle "
        "was installed, 1 when not, 2 wrong usage.")
    parser.add_argument("bundle", nargs="+", type=Path, metavar="DIRECTORY | DOCUMENT ARCHIVE",
                        help="the files of a bundle, or a bundle as make-bundle writes it")
    parser.add_argument("--key", type=Path, metavar="PUBLIC",
                        help="public key for DOCUMENT's signature, installed on the device (default: a key "
                        "made for this signs the bundle anew)")
    parser.add_argument("--bare", action="store_true",
                        help="leave out what a small system has (busybox) and the daemon does not need")
    parser.add_argument("--add", action="append", default=[], type=addition, metavar="FILE[:PATH]",
                        help="put a file or program on the device, with its libraries (PATH: FILE's own)")
    parser.add_argument("--setting", action="append", default=[], type=setting,
                        metavar="KEY=VALUE", help="set a value of the configuration store")
    parser.add_argument("--keep", action="store_true", help="keep a copy of the device's files")
    parser.add_argument("--shell", action="store_true", help="start a shell on the device after the run")
    arguments = parser.parse_args()
    if len(arguments.bundle) > 2 or (arguments.key and len(arguments.bundle) == 1):
        parser.error("one DIRECTORY, or DOCUMENT and ARCHIVE, which may have a --key")
    return arguments


def additions(arguments: argparse.Namespace) -> dict[str, Path]:
    """What to put on the device: path there -> path here."""
    system = {} if arguments.bare else {BUSYBOX: Path(BUSYBOX).resolve()}
    return system | dict(arguments.add)


def furnish(device: VirtualDevice) -> None:
    """Makes a small system of it: links for what busybox can do and the device does not have."""
    for path, content in USERS.items():
        device.write(path, content)
    names = subprocess.run([BUSYBOX, "--list-full"], capture_output=True, text=True, check=True).stdout
    for name in re.findall(r"\S+/\S+", names):
        link = device.path(name)
        link.parent.mkdir(parents=True, exist_ok=True)
        if not link.exists():
            link.symlink_to(BUSYBOX)


def publish(device: VirtualDevice, arguments: argparse.Namespace) -> None:
    if len(arguments.bundle) == 1:
        device.publish(pack(arguments.bundle[0], device.keys.private("prod"), device.url(ARCHIVE)))
        print("signed with a key made for this, which is on the device")
        return
    document, archive = (path.read_bytes() for path in arguments.bundle)
    if not arguments.key:
        device.publish(device.sign(archive))
        print("document replaced: signed anew with a key made for this, which is on the device")
        return
    device.write(KEY, arguments.key.read_bytes())
    bundle = Bundle(archive, document)
    check = [CHECKER, *arguments.bundle, arguments.key]
    findings = subprocess.run(check, stdout=subprocess.PIPE, text=True, check=False).stdout
    print("check-bundle:\n" + textwrap.indent(findings, "  "), end="")
    # What devices refuse stays as it is, so that this one does too.
    if not re.search("error: (address|no string member url|not JSON|not a JSON)", findings):
        bundle = bundle.with_url(device.url(ARCHIVE))
        print("for this run the document's address is that of the local server")
    device.publish(bundle)


@dataclass(frozen=True)
class Entry:
    kind: str
    mode: int
    owner: str
    content: str

    def __str__(self) -> str:
        target = f", {self.content}" if self.kind == "link" else ""
        return f"{self.kind}, {self.mode:04o}, {self.owner}{target}"

    def changes_to(self, other: "Entry") -> Iterator[str]:
        if (self.kind, self.content) != (other.kind, other.content):
            yield "content" if self.kind == other.kind else f"{self.kind} -> {other.kind}"
        if self.mode != other.mode:
            yield f"mode {self.mode:04o} -> {other.mode:04o}"
        if self.owner != other.owner:
            yield f"owner {self.owner} -> {other.owner}"


def entry(path: Path) -> Entry:
    info = path.lstat()
    mode = stat.S_IMODE(info.st_mode)
    user, group = info.st_uid, info.st_gid
    if (user, group) == (os.geteuid(), os.getegid()):  # who is not root is root in there
        user = group = 0
    owner = f"{user}:{group}"
    if stat.S_ISLNK(info.st_mode):
        return Entry("link", mode, owner, f"to {os.readlink(path)}")
    if stat.S_ISREG(info.st_mode):
        return Entry("file", mode, owner, digest(path))
    return Entry("directory" if stat.S_ISDIR(info.st_mode) else "special", mode, owner, "")


def digest(path: Path) -> str:
    try:
        with open(path, "rb") as file:
            return hashlib.file_digest(file, "sha256").hexdigest()
    except PermissionError:
        return "not readable"


def entries(root: Path) -> dict[str, Entry]:
    found = {}
    for parent, directories, files in os.walk(root):
        for path in (Path(parent, name) for name in directories + files):
            name = f"/{path.relative_to(root)}"
            if not NOT_THE_BUNDLE.fullmatch(name):
                found[name] = entry(path)
    return found


def room(directory: Path) -> int:
    """The room that the files of a directory need."""
    total = 0
    for parent, _, files in os.walk(directory):
        for name in files:
            try:
                total += os.lstat(os.path.join(parent, name)).st_blocks * 512
            except FileNotFoundError:
                pass
    return total


def watch(device: VirtualDevice, run: Run) -> int:
    """Waits for the end; the most room that was seen in use in /tmp until then."""
    peak = 0
    while True:
        ended = run.status is not None
        begin = time.monotonic()
        peak = max(peak, room(device.path("/tmp")))
        if ended:
            return peak
        time.sleep(max(0.002, 4 * (time.monotonic() - begin)))


def show(device: VirtualDevice, run: Run, seconds: float) -> None:
    lines = device.syslog.lines()
    print("log:")
    for line in lines:
        print(f"  {LEVELS.get(line.priority & 7, line.priority):<7}  {line.ident}[{line.pid}]: {line.text}")
    print("standard error:" + "".join(f"\n  {line}" for line in run.output().splitlines() or ["nothing"]))
    print("UI shell:" + "".join(f"\n  {line}" for line in device.shell_lines() or ["nothing shown"]))
    stages = [line for line in lines if re.search(":main:[A-Z][a-z]+ing |:signum=", line.text)]
    print("time:")
    for line, following in zip(stages, stages[1:]):
        print(f"  {following.arrived - line.arrived:8.3f} s  {line.text.rpartition(':')[2]}")
    print(f"  {seconds:8.3f} s  all")


def show_changes(before: dict[str, Entry], after: dict[str, Entry]) -> None:
    print("changes on the device, the daemon's own files apart:")
    lines = [f"removed  {path}" for path in before.keys() - after.keys()]
    lines += [f"added    {path} ({after[path]})" for path in after.keys() - before.keys()]
    lines += [f"changed  {path} ({'; '.join(before[path].changes_to(after[path]))})"
              for path in before.keys() & after.keys() if before[path] != after[path]]
    for line in sorted(lines, key=lambda line: line.split()[1]) or ["none"]:
        print(f"  {line}")


def open_shell(device: VirtualDevice) -> None:
    print("a shell on the device; the device is gone when it ends", flush=True)
    signal.signal(signal.SIGINT, lambda *_: None)  # meant for what runs in the shell
    environment = {"PATH": "/usr/sbin:/usr/bin", "TERM": os.environ.get("TERM", "dumb")}
    device.popen(["/bin/sh"], stdin=None, env=environment).wait()


def main() -> int:
    arguments = parse_arguments()
    build = Path(os.environ.get("ZELO_BUILD_DIR", "build/release"))
    with VirtualDevice(build, additions(arguments)) as device:
        if not arguments.bare:
            furnish(device)
        device.set_pref(RETRIES, "0")
        device.set_pref(TIMEOUT, "900")
        for key, value in arguments.setting:
            device.set_pref(key, value)
        publish(device, arguments)
        before = entries(device.root)
        begin = time.monotonic()
        run = device.start()
        peak = watch(device, run)
        show(device, run, time.monotonic() - begin)
        codes = re.findall(r"showError (\d\d)", "\n".join(device.shell_lines()))
        print(f"most room seen in use in /tmp: {peak} bytes")
        show_changes(before, entries(device.root))
        installed = run.status == 0 and not codes
        print(f"exit status: {run.status}\n" + ("installed" if installed else
                                                f"NOT INSTALLED, code {codes[-1] if codes else 'none'}"))
        if arguments.shell:
            open_shell(device)
        if arguments.keep:
            kept = tempfile.mkdtemp(prefix="try-bundle.", dir="/tmp")
            subprocess.run(["cp", "-a", f"{device.root}/.", kept], check=True)
            print(f"the device's files: {kept}")
    return 0 if installed else 1


if __name__ == "__main__":
    sys.exit(command_line.run("try-bundle", main))
