"""What is concluded from what was seen of a bundle's attempts."""

from dataclasses import replace

import pytest

from device.trial.lines import printable, shortened
from device.trial.trace import Trace
from device.trial.verdict import Attempt, judge

DAEMON = '7 execve("/usr/sbin/zeloinstall", ["/usr/sbin/zeloinstall"], 0x7ffd /* 0 vars */) = 0'
STARTED = f"""\
{DAEMON}
7 clone(child_stack=NULL, flags=CLONE_CHILD_SETTID|SIGCHLD) = 3 /* 8 in strace's PID NS */
8 dup2(5<pipe:[44]>, 1</dev/null>) = 1<pipe:[44]>
8 execve("/tmp/zeloinstall.aBc123/run.sh", ["/tmp/zeloinstall.aBc123/run.sh"], 0x7ffd /* 0 vars */) = 0
"""
ENDED = "8 +++ exited with 0 +++\n7 +++ exited with 0 +++\n"
FORKED = "8 clone(flags=CLONE_CHILD_SETTID|SIGCHLD) = 4 /* 9 in strace's PID NS */\n"


def traced(lines: str) -> tuple[Trace, bytes]:
    trace = Trace()
    return trace, b"".join(map(trace.feed, lines.splitlines()))


@pytest.mark.parametrize("lines, failed, not_found, left", [
    (FORKED + '9 execve("/bin/grep", ["grep", "x y"], 0x1 /* 0 vars */) = 0\n9 +++ exited with 1 +++\n',
     ["grep x y: status 1"], [], []),
    (FORKED + '9 execve("/bin/a", ["a"], 0x1 /* 0 vars */) = 0\n9 +++ killed by SIGSEGV (core dumped) +++\n',
     ["a: SIGSEGV"], [], []),
    (FORKED + '9 execve("/sbin/a", ["a"], 0x1 /* 0 vars */) = -1 ENOENT (No such file or directory)\n'
     '9 execve("/bin/a", ["a"], 0x1 /* 0 vars */) = -1 ENOENT (No such file)\n9 +++ exited with 127 +++\n',
     [], ["a"], []),
    (FORKED + '9 execve("/sbin/a", ["a"], 0x1 /* 0 vars */) = -1 ENOENT (No such file or directory)\n'
     '9 execve("/bin/a", ["a"], 0x1 /* 0 vars */) = 0\n9 +++ exited with 0 +++\n', [], [], []),
    (FORKED + "9 +++ exited with 2 +++\n", [], [], []),  # a shell's own process
    ("8 vfork( <unfinished ...>\n" '9 execve("/bin/a", ["a"], 0x1 /* 0 vars */ <unfinished ...>\n'
     "9 <... execve resumed>) = 0\n9 +++ exited with 3 +++\n"
     "8 <... vfork resumed>) = 4 /* 9 in strace's PID NS */\n", ["a: status 3"], [], []),
    (FORKED + '9 execve("/bin/a", ["a", "b"], 0x1 /* 0 vars */) = 0\n', [], [], ["a b"]),
    ("7 clone(flags=CLONE_VM|CLONE_THREAD) = 4 /* 9 in strace's PID NS */\n", [], [], []),
])
def test_what_became_of_programs(lines: str, failed: list[str], not_found: list[str],
                                 left: list[str]) -> None:
    trace, _ = traced(STARTED + lines + ENDED + "9 +++ killed by SIGKILL +++\n")
    assert (trace.failed, trace.not_found, trace.left) == (failed, not_found, left)
    assert (trace.script_end, trace.daemon_end) == ("status 0", "status 0")


def test_standard_output() -> None:
    written = (r'8 write(1<pipe:[44]>, "h\303\251 = \"1\"\n", 9) = 9' "\n"
               '8 write(1<pipe:[45]>, "elsewhere", 9) = 9\n'
               '9 writev(3<pipe:[44]>, [{iov_base="a", iov_len=1}, {iov_base="b\\n", iov_len=2}], 2) = 3\n'
               '9 sendfile(1<pipe:[44]>, 4</x>, NULL, 16777216) = 70\n')
    assert traced(STARTED + written)[1] == 'hé = "1"\nab\n[70 bytes]\n'.encode()
    assert traced(DAEMON + written)[1] == b""


def test_privileges_and_who_runs() -> None:
    restart = "9 reboot(LINUX_REBOOT_MAGIC1, LINUX_REBOOT_MAGIC2, LINUX_REBOOT_CMD_RESTART) = -1 EPERM (x)\n"
    mounts = "".join(f"{pid} mount(NULL, \"/\", NULL, MS_REMOUNT, NULL) = -1 EPERM (x)\n" for pid in (7, 9))
    trace, _ = traced(STARTED + FORKED + restart + mounts)
    assert (trace.restarts, trace.refused) == (True, ["mount"])
    assert trace.running() == dict.fromkeys((8, 9), "/tmp/zeloinstall.aBc123/run.sh")


GOOD = Attempt(status=0, reached_script=True, script_end="status 0", changes=["added    /x"])
AGAIN = replace(GOOD, changes=[])
DEAD = ("  THE DEVICE CANNOT BE UPDATED ANY MORE: the next attempt fails before it comes to its script "
        "(code 00)")


@pytest.mark.parametrize("first, second, lines, status", [
    (GOOD, AGAIN, ["installed"], 0),
    (GOOD, None, ["installed"], 0),
    (replace(GOOD, changes=[]), None, ["installed, but", "  nothing changed on the device"], 0),
    (replace(GOOD, stderr=True, script_end="SIGKILL"), None,
     ["installed, but", "  run.sh was ended by SIGKILL, which counts as success",
      "  something was written on standard error"], 0),
    (replace(GOOD, not_found=["a"], refused=["mount"], left=["b", "c"], restarts=True), AGAIN,
     ["installed, but", "  not found: a", "  refused here, but perhaps not on a device: mount",
      "  left running, until the service unit kills them: b, c",
      "  a restart of the device was asked for; devices run the bundle again after it"], 0),
    (GOOD, replace(AGAIN, code="03"), ["installed, but", "  the second attempt fails: code 03"], 0),
    (GOOD, GOOD, ["installed, but", "  the second attempt changes more: 1 path"], 0),
    (GOOD, replace(AGAIN, code="00", reached_script=False), ["installed, but", DEAD], 1),
    (GOOD, replace(AGAIN, status=None, stopped="stopped after 5 s"),
     ["installed, but", "  the second attempt fails: stopped after 5 s"], 0),
    (replace(GOOD, code="03", refused=["mount"]), AGAIN,
     ["NOT INSTALLED: code 03", "refused here, but perhaps not on a device: mount"], 1),
    (replace(GOOD, code="03"), replace(AGAIN, code="00", reached_script=False),
     ["NOT INSTALLED: code 03", DEAD.strip()], 1),
    (replace(GOOD, status=1), None, ["NOT INSTALLED: the daemon ended with status 1"], 1),
    (replace(GOOD, status=-9), None, ["NOT INSTALLED: the daemon was ended by SIGKILL"], 1),
])
def test_verdict(first: Attempt, second: Attempt | None, lines: list[str], status: int) -> None:
    verdict = judge(first, second, strict=False)
    assert (verdict.lines, verdict.status) == (lines, status)
    assert judge(first, second, strict=True).status == (0 if lines == ["installed"] else 1)


def test_how_texts_are_shown() -> None:
    assert shortened(["a", "b" * 99, "a"]) == ["a (2 times)", "b" * 80 + "..."]
    assert shortened(map(str, range(12)))[9:] == ["9", "2 more"]
    assert printable("a\tb\x1b[31m\r\x7f\udcff") == r"a" "\t" r"b\x1b[31m\x0d\x7f\xff"
