"""What a run of the daemon does, as strace tells it."""

import os
import re
import shutil
import subprocess
from dataclasses import dataclass, field

from device.rootfs import DAEMON

CALLS = "execve,execveat,clone,?clone3,?fork,?vfork,write,writev,sendfile,?dup2,dup3,reboot"
STRACE = ["/usr/bin/strace", "-f", "-q", "-y", "--decode-pids=pidns", "--seccomp-bpf",
          "--string-limit=4096", f"--trace={CALLS}"]
SCRIPT = re.compile(r"/tmp/zeloinstall\.[^/]+/run\.sh")

LINE = re.compile(r"(\d+) +(.*)")
UNFINISHED = " <unfinished ...>"
RESUMED = re.compile(r"<\.\.\. \w+ resumed>(.*)")
CALL = re.compile(r"(\w+)\((.*)\) += (-?\d+)(.*)")
END = re.compile(r"\+\+\+ (?:exited with (\d+)|killed by (\w+).*) \+\+\+")
SHORT = 50  # characters, in which the name of a pipe has room
TEXT = re.compile(r'"((?:\\.|[^"\\])*)"')
CHILD = re.compile(r" /\* (\d+) in strace's PID NS \*/")
PIPE = re.compile(r"\d+<(pipe:\[\d+\])>")


def unavailable() -> str:
    """Why nothing can be traced here; empty when it can."""
    if not shutil.which(STRACE[0]):
        return "strace is not installed"
    done = subprocess.run([*STRACE, "--output=/dev/null", "/bin/true"], stdin=subprocess.DEVNULL,
                          capture_output=True, text=True, check=False)
    return "" if done.returncode == 0 else done.stderr.strip().rpartition("\n")[2]


def unquoted(text: str) -> bytes:
    return text.encode("ascii").decode("unicode_escape").encode("latin-1")


@dataclass
class Process:
    parent: int = 0
    command: str = ""
    executed: bool = False  # rather than just forked
    not_found: str = ""
    output: str = ""  # the pipe that is its standard output
    begun: str = ""  # a call that has not returned
    end: str = ""


@dataclass
class Trace:
    """Takes strace's lines one by one. A process may act, and end, before the call that made it returns."""

    script: int = 0  # the process of run.sh, once there is one
    script_end: str = ""  # "status 1", or the name of a signal
    daemon_end: str = ""
    failed: list[str] = field(default_factory=list)  # programs of the script
    not_found: list[str] = field(default_factory=list)
    left: list[str] = field(default_factory=list)  # what the script started and the end of the daemon met
    restarts: bool = False  # the kernel was asked to restart the device
    output: str = ""  # the pipe that is the standard output of run.sh
    _daemon: int = 0
    _processes: dict[int, Process] = field(default_factory=dict)

    def feed(self, line: str) -> bytes:
        """What the line says that was written to the standard output of run.sh."""
        if not (match := LINE.match(line)):
            return b""
        pid, event = int(match[1]), match[2]
        if event.startswith(("write", "sendfile")) and not (self.output and self.output in event[:SHORT]):
            return b""  # most of them, and some are long
        process = self._processes.setdefault(pid, Process())
        if resumed := RESUMED.match(event):
            event, process.begun = process.begun + resumed[1], ""
        if event.endswith(UNFINISHED):
            process.begun = event.removesuffix(UNFINISHED)
        elif end := END.fullmatch(event):
            self._end(pid, f"status {end[1]}" if end[1] else end[2])
        elif call := CALL.fullmatch(event):
            return self._call(pid, *call.groups())
        return b""

    def running(self) -> dict[int, str]:
        """What run.sh has started and is still there, itself included: process -> command."""
        return {pid: process.command for pid, process in self._processes.items()
                if not process.end and self._is_of_script(pid)}

    def _call(self, pid: int, name: str, arguments: str, result: str, more: str) -> bytes:
        succeeded = not result.startswith("-")
        if name.startswith("exec"):
            self._execute(pid, arguments, succeeded, more)
        elif name in ("clone", "clone3", "fork", "vfork"):
            if succeeded and "CLONE_THREAD" not in arguments:
                translated = CHILD.match(more)
                self._fork(pid, int(translated[1] if translated else result))
        elif name.startswith("dup"):
            if pipe := re.match(PIPE.pattern + r", 1\b", arguments):
                self._processes[pid].output = pipe[1]
        elif name == "reboot":
            self.restarts |= self._is_of_script(pid)
        elif succeeded and (pipe := PIPE.match(arguments)) and pipe[1] == self.output:
            cut = b" [...]\n" if '"...' in arguments else b""
            return b"".join(map(unquoted, TEXT.findall(arguments))) + cut or b"[%s bytes]\n" % result.encode()
        return b""

    def _execute(self, pid: int, arguments: str, succeeded: bool, more: str) -> None:
        process = self._processes[pid]
        path, *words = [unquoted(text).decode(errors="backslashreplace") for text in TEXT.findall(arguments)]
        if not succeeded:
            process.not_found = os.path.basename(path) if "ENOENT" in more else ""
            return
        if path == DAEMON and not self._daemon:
            self._daemon = pid
        elif self._daemon and not self.script and SCRIPT.fullmatch(path):
            self.script, self.output = pid, process.output
        process.command, process.executed, process.not_found = " ".join(words) or path, True, ""

    def _fork(self, parent: int, child: int) -> None:
        process = self._processes.setdefault(child, Process())
        process.parent = parent
        process.command = process.command or self._processes[parent].command
        if process.end:
            self._judge(child)

    def _end(self, pid: int, end: str) -> None:
        if pid == self._daemon:
            self.daemon_end = end
            self.left = [command for left, command in self.running().items() if left != self.script]
        self._processes[pid].end = end
        if pid == self.script:
            self.script_end = end
        else:
            self._judge(pid)

    def _judge(self, pid: int) -> None:
        process = self._processes[pid]
        if not self._is_of_script(pid) or self.daemon_end:
            return
        if process.not_found:
            self.not_found.append(process.not_found)
        elif process.executed and process.end != "status 0":
            self.failed.append(f"{process.command}: {process.end}")

    def _is_of_script(self, pid: int) -> bool:
        while pid and pid != self.script:
            pid = self._processes[pid].parent
        return bool(pid)
