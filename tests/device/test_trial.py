"""What is concluded from what was seen of a bundle's attempts."""

from collections.abc import Sequence

import pytest

from device.trial.lines import shortened
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
RAN = '9 execve("/bin/a", ["a", "b c"], 0x1 /* 0 vars */) = 0\n'
MISSED = '9 execve("/sbin/a", ["a"], 0x1 /* 0 vars */) = -1 ENOENT (No such file or directory)\n'


def traced(lines: str) -> tuple[Trace, list[tuple[str, bytes]]]:
    trace = Trace()
    return trace, [written for line in lines.splitlines() if any(written := trace.feed(line))]


@pytest.mark.parametrize("lines, failed, not_found, left", [
    (FORKED + RAN + "9 +++ exited with 1 +++\n", ["a b c: status 1"], [], []),
    (FORKED + RAN + "9 +++ killed by SIGSEGV (core dumped) +++\n", ["a b c: SIGSEGV"], [], []),
    (FORKED + MISSED + "9 +++ exited with 127 +++\n", [], ["a"], []),
    (FORKED + MISSED + "9 +++ exited with 1 +++\n", [], [], []),
    (FORKED + MISSED + RAN + "9 +++ exited with 127 +++\n", ["a b c: status 127"], [], []),
    (FORKED + "9 +++ exited with 2 +++\n", [], [], []),  # a copy of a shell
    ("8 vfork( <unfinished ...>\n" + RAN + "9 +++ exited with 3 +++\n"
     "8 <... vfork resumed>) = 4 /* 9 in strace's PID NS */\n", ["a b c: status 3"], [], []),
    ("7" + FORKED[1:] + RAN + "9 +++ exited with 1 +++\n", [], [], []),  # the daemon's own
    (FORKED + RAN, [], [], ["a b c"]),
    (FORKED, [], [], ["run.sh"]),
    (FORKED.replace("SIGCHLD", "CLONE_THREAD"), [], [], []),
])
def test_what_became_of_programs(lines: str, failed: list[str], not_found: list[str],
                                 left: list[str]) -> None:
    trace, _ = traced(STARTED + lines + "8 +++ exited with 2 +++\n7 +++ exited with 0 +++\n"
                      "9 +++ killed by SIGKILL +++\n")
    assert (trace.failed(), trace.not_found, list(trace.running().values())) == (failed, not_found, left)
    assert trace.script and (trace.script.end, trace.daemon.end) == ("status 2", "status 0")


def test_what_is_written() -> None:
    trace, written = traced(STARTED + r'''
8 write(1<pipe:[44]>, "h\303\251 = \"1\"\n", 9) = 9
8 write(1</log>, "elsewhere", 9) = 9
9 writev(3<pipe:[44]>, [{iov_base="a", iov_len=1}, {iov_base="b\n", iov_len=2}], 2) = 3
9 sendfile(2<socket:[45]>, 4</x>, NULL, 16777216) = 70
9 sendfile(1<pipe:[44]>, 4</x>, NULL, 16777216) = 0
9 write(1<pipe:[44]>, "cut"..., 5000 <unfinished ...>
9 <... write resumed>) = 5000
''')
    assert trace.stdout == "pipe:[44]"
    assert written == [("pipe:[44]", 'hé = "1"\n'.encode()), ("pipe:[44]", b"ab\n"),
                       ("socket:[45]", b"[70 bytes]\n"), ("pipe:[44]", b"cut [...]\n")]


def attempt(lines: str = "", end: str = ENDED, stderr: bool = False,
            changes: Sequence[str] = ("added    /x",)) -> Attempt:
    return Attempt(traced(STARTED + lines + end)[0], stderr=stderr, changes=changes)


def failed(code: str, start: str = STARTED) -> Attempt:
    return Attempt(traced(start + ENDED)[0], shown=[f"showError {code}"])


DEAD = "THE DEVICE CANNOT BE UPDATED ANY MORE: the next attempt fails before it reaches its script (code 00)"
REMOUNT = "8 mount(NULL, \"/\", NULL, MS_REMOUNT, NULL) = -1 EPERM (Operation not permitted)\n"


@pytest.mark.parametrize("attempts, lines, status", [
    ([attempt(changes=())], ["installed, but", "  nothing changed on the device"], 0),
    ([attempt(stderr=True, end=ENDED.replace("exited with 0", "killed by SIGKILL", 1))],
     ["installed, but", "  run.sh ended with SIGKILL, which counts as success",
      "  something was written on standard error"], 0),
    ([attempt(FORKED + REMOUNT + REMOUNT.replace("mount", "umount2").replace("EPERM", "EBUSY"))],
     ["installed, but", "  refused here, but perhaps not on a device: mount",
      "  left running, until the service unit kills them: run.sh"], 0),
    ([attempt(), failed("03")], ["installed, but", "  the second attempt fails: code 03"], 0),
    ([attempt(), failed("00", DAEMON + "\n")], ["installed, but", f"  {DEAD}"], 1),
    ([attempt(), Attempt(stopped="stopped by SIGINT")],
     ["installed, but", "  the second attempt fails: stopped by SIGINT"], 0),
    ([failed("03"), failed("00", DAEMON + "\n")], ["NOT INSTALLED: code 03", DEAD], 1),
    ([attempt(end="7 +++ exited with 1 +++\n")], ["NOT INSTALLED: the daemon ended with status 1"], 1),
])
def test_verdict(attempts: list[Attempt], lines: list[str], status: int) -> None:
    assert judge(*attempts, strict=False) == (lines, status)
    assert judge(*attempts, strict=True)[1] == 1


def test_long_lists() -> None:
    assert shortened(["a", "b" * 99, "a"]) == ["a (2 times)", "b" * 80 + "..."]
    assert shortened(map(str, range(12)))[9:] == ["9", "2 more"]
