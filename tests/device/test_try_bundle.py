"""What an author is told of a bundle that is tried on the virtual device."""

import os
import re
import signal
import subprocess
import sys
from pathlib import Path

import pytest

from device import rootfs
from device.bundles import pack
from device.keys import Keys

pytestmark = pytest.mark.usefixtures("plain_only")  # sanitizers and emulators do not run under a tracer
ROOT = Path(__file__).resolve().parents[2]
COMMAND = [sys.executable, "-m", "device.alone", sys.executable, "-m", "device.commands", "try-bundle"]
DEAD = "THE DEVICE CANNOT BE UPDATED ANY MORE: the next attempt fails before it reaches its script"
SHOWN = r"""#!/bin/sh -e
printf 'caf\303\251 \377\302\233\n' >&2
echo progress
cat /etc/group
mkdir /new
rm /etc/group
cat /etc/device-info > /etc/passwd
chmod 600 /etc/device-info
ln -s /x /etc/link
touch "$(printf '/tmp/\377')"
sleep 1000 > /dev/null 2>&1 &
awk 'BEGIN { exit 3 }' || env nosuch || true
(exit 2) || sh -c 'kill -SEGV $$' || true
"""
# What only somebody can do who reaches this machine; none does harm there.
ESCAPES = """
true >> /proc/sys/kernel/panic
mount -o remount,rw,bind /proc
umount /proc
umount -l /dev/null
chmod 666 /dev/null
chmod 666 /dev/zero
chmod 666 /proc/self/fd/0
mknod /disk b 8 0
mount -t sysfs none /mnt
mount -t cgroup2 none /mnt
mount -t proc none /mnt
hostname another
readlink /proc/1/exe | grep bwrap
"""


def environment(build: Path) -> dict[str, str]:
    """Where nothing but ASCII is known."""
    return {**os.environ, "ZELO_BUILD_DIR": str(build), "PYTHONPATH": f"{ROOT}:{ROOT}/tools", "LC_ALL": "C",
            "PYTHONUTF8": "0", "PYTHONCOERCECLOCALE": "0"}


def attempt(build: Path, *arguments: str | Path) -> tuple[int, str]:
    done = subprocess.run([*COMMAND, *arguments], check=False, text=True, stdout=subprocess.PIPE, cwd=ROOT,
                          env=environment(build))
    return done.returncode, done.stdout


@pytest.fixture
def source(tmp_path: Path) -> Path:
    directory = tmp_path / "bundle"
    directory.mkdir()
    write(directory, "")
    return directory


def write(source: Path, script: str) -> None:
    (source / "run.sh").write_text(script if script.startswith("#!") else f"#!/bin/sh -e\n{script}\n")
    (source / "run.sh").chmod(0o755)


def test_what_is_shown(build: Path, source: Path) -> None:
    write(source, SHOWN)
    status, said = attempt(build, "--strict", source)
    events = [line.partition(" s  ")[2] for line in said.splitlines()]
    for event in ("stderr   caf\\xc3\\xa9 \\xff\\xc2\\x9b", "stdout   progress  (dropped on a device)",
                  "stdout   [27 bytes]  (dropped on a device)",
                  "stderr   env: can't execute 'nosuch': No such file or directory"):
        assert event in events
    first = said.partition("run.sh ended with ")[2].partition("second attempt:")[0]
    assert first.splitlines() == [
        "status 0", "programs of run.sh that failed, perhaps as intended:",
        "  awk BEGIN { exit 3 }: status 3", "  env nosuch: status 127",
        "  sh -c kill -SEGV $$: SIGSEGV",
        "programs not found:", "  nosuch", "left running:", "  sleep 1000",
        "changes by the first attempt, without the daemon's own files:",
        "  changed  /etc/device-info (-rw-r--r-- 0:0, now -rw------- 0:0)", "  removed  /etc/group",
        "  added    /etc/link (lrwxrwxrwx 0:0 to /x)", "  changed  /etc/passwd (content)",
        "  added    /new (drwxr-xr-x 0:0)", "  added    /tmp/\\xff (-rw-r--r-- 0:0)"]
    assert (status, said.splitlines()[-1]) == (1, "  the second attempt fails: code 03")


@pytest.mark.parametrize("script, options, verdict, expected", [
    ("touch /x", "", "installed", 0),
    ("mkdir /x", "--once --strict", "installed", 0),
    ("touch /x; rm -f /dev/log", "", "installed", 0),
    ("chmod 000 /usr/lib", "", "installed", 0),
    (":", "", "  nothing changed on the device", 0),
    ("echo >> /x", "", "  the second attempt changes more", 0),
    ("touch /x; kill -9 $$", "--once", "  run.sh ended with SIGKILL, which counts as success", 0),
    ("touch /x; echo >&2", "--once", "  something was written on standard error", 0),
    ("touch /x; exec 2>&-; umount /proc || umount /proc || true", "--once",
     "  refused here, but perhaps not on a device: umount2 (2 times)", 0),
    ("touch /x; sleep 1000 >&2 &", "--once",
     "  left running, until the service unit kills them: sleep 1000", 0),
    ("rm /usr/bin/openssl", "", f"  {DEAD} (code 00)", 1),
    ("rm /usr/bin/openssl; exit 1", "", f"{DEAD} (code 00)", 1),
    ("rm /bin/sh /usr/bin/busybox", "", f"  {DEAD} (the daemon could not be started)", 1),
    ("echo '#!/bin/sh' > /x; chmod +x /x; mv /x /usr/sbin/zeloinstall", "",
     f"  {DEAD} (run.sh was not started)", 1),
    ("echo '#!/bin/sh' > /usr/bin/kbus-send-event; exit 1", "",
     "NOT INSTALLED: run.sh ended with status 1", 1),
    ("echo progress > /dev/stderr", "", "NOT INSTALLED: code 03", 1),  # as under the service unit
    ("sleep 1000", "--timeout 1", "NOT INSTALLED: stopped after 1 s", 1),
    ("printf '#!/bin/sh\\nsleep 1000\\n' > /x; chmod +x /x; mv /x /bin/tar", "--timeout 3",
     f"  {DEAD} (stopped after 3 s)", 1),
    ("touch /x", "--setting zelo.installer.download.retries=-1", "NOT INSTALLED: code 99", 1),
    ("test -s /opt/here/run.sh; touch /x", "--add {source}:/opt/here", "installed", 0),
    ("kill -9 -1", "", "NOT INSTALLED: the daemon ended with SIGKILL", 1),
])
def test_verdict(build: Path, source: Path, script: str, options: str, verdict: str, expected: int) -> None:
    write(source, script)
    status, said = attempt(build, *options.format(source=source).split(), source)
    assert (status, said.splitlines()[-1]) == (expected, verdict), said


@pytest.mark.usefixtures("confined_only")
def test_nothing_reaches_this_machine(build: Path, source: Path) -> None:
    tries = (f"if {line}; then echo 'DID {line}' >&2; fi" for line in ESCAPES.splitlines() if line)
    facts = ("awk '{ print $2 }' /proc/mounts", "readlink /proc/self/ns/net")
    write(source, "\n".join(["#!/bin/sh", "mkdir -p /mnt", *tries, *facts, ""]))
    status, said = attempt(build, "--once", source)
    assert status == 0 and "DID" not in said, said
    *mounts, network = re.findall(r"stdout   (\S+)", said)
    devices = (f"/dev/{name}" for name in ("full", "null", "random", "urandom", "zero"))
    shown = [mount for mount in mounts if not mount.startswith("/proc/")]  # some cover parts of it
    assert sorted(shown) == ["/", *devices, "/proc"]
    assert network != os.readlink("/proc/self/ns/net")


@pytest.mark.parametrize("name", ["root", "not:for an overlay"])
def test_own_system(build: Path, source: Path, tmp_path: Path, name: str) -> None:
    own = tmp_path / name
    rootfs.fill(own, build, {"/bin/rm": Path("/usr/bin/rm"), "/etc/own": source / "run.sh"})
    (own / "usr/bin/openssl").unlink()
    (own / "etc/ssl").rename(own / "certificates")
    (own / "etc/ssl").symlink_to("/certificates")
    before = sorted((path, path.lstat().st_mtime_ns) for path in own.rglob("*"))
    write(source, "rm /etc/own")
    status, said = attempt(build, "--once", "--root", own, source)
    assert status == 0 and "which lacks them:\n  /usr/bin/openssl\nsigned" in said
    assert said.endswith("own files:\n  removed  /etc/own\ninstalled\n")
    assert sorted((path, path.lstat().st_mtime_ns) for path in own.rglob("*")) == before


def test_a_bundle_with_its_key(build: Path, source: Path, tmp_path: Path) -> None:
    keys = Keys(tmp_path / "keys")
    bundle = pack(source, keys.private("author"), "https://bundles.example.com/x")
    document, archive = tmp_path / "document", tmp_path / "archive"
    document.write_bytes(bundle.document.replace(b"}", b', "signature": "the second one"}'))
    archive.write_bytes(bundle.archive)
    assert attempt(build, document, archive, "--key", keys.public("author"))[0] == 0
    assert attempt(build, source, "--key", keys.public("author"))[0] == 2
    status, said = attempt(build, document, archive, "--key", keys.public("other"))
    assert status == 1 and said.endswith("code 00\n") and "error: the signature does not verify" in said
    assert "programs of run.sh" not in said  # the openssl that fails is the daemon's
    document.write_bytes(bundle.document.replace(b"https:", b"http:"))
    assert attempt(build, document, archive, "--key", keys.public("author"))[1].endswith("code 02\n")


def test_what_is_waited_for_and_an_end_by_the_user(build: Path, source: Path) -> None:
    write(source, "touch /x; sleep 1000 &")
    with subprocess.Popen([*COMMAND, source], text=True, stdout=subprocess.PIPE, cwd=ROOT,
                          env=environment(build)) as process:
        assert process.stdout
        line = next(line for line in process.stdout if "  waiting  " in line)
        process.send_signal(signal.SIGINT)
        rest = process.stdout.read()
    assert line.endswith("run.sh has ended, but its standard output is held; still running: sleep 1000\n")
    assert rest.endswith("/x (-rw-r--r-- 0:0)\nNOT INSTALLED: stopped by SIGINT\n")
    assert process.returncode == -signal.SIGINT
