"""What a run of the daemon does, as strace tells it."""

import os
import re
import subprocess
from collections import defaultdict
from dataclasses import dataclass, field

from device.rootfs import DAEMON

# Not every machine has all of them. The last ones need privileges.
CALLS = ("?execve,?execveat,?fork,?vfork,?clone,?clone3,?dup2,?dup3,"
         "?write,?writev,?sendfile,?sendto,?sendmsg,"
         "?mount,?umount2,?mknod,?mknodat,?reboot,?sethostname,?settimeofday,?clock_settime,?finit_module")
STRACE = ["/usr/bin/strace", "-f", "-q", "-y", "--decode-pids=pidns", "--seccomp-bpf",
          "--string-limit=4096", f"--trace={CALLS}"]
SCRIPT = re.compile(r"/tmp/zeloinstall\.[^/]+/run\.sh")
SUCCESS, NOT_FOUND = "status 0", "status 127"

LINE = re.compile(r"(\d+) +(.*)")
UNFINISHED = " <unfinished ...>"
RESUMED = re.compile(r"<\.\.\. \w+ resumed>(.*)")
WRITTEN_TO_FILE = re.compile(r"(write|writev|sendfile)\(\d+<(?!pipe:|socket:)")
CALL = re.compile(r"(\w+)\((.*)\) += (-?\d+)(.*)")
END = re.compile(r"\+\+\+ (?:exited with (\d+)|killed by (\w+).*) \+\+\+")
TEXT = re.compile(r'"((?:\\.|[^"\\])*)"')
CHILD = re.compile(r" /\* (\d+) in strace's PID NS \*/")
CHANNEL = re.compile(r"\d+<((?:pipe|socket):\[\d+\])>(, 1\b)?")


def impossible() -> str:
    """Why this machine can trace nothing; empty when it can."""
    command = [*STRACE, "--output=/dev/null", "/bin/true"]
    done = subprocess.run(command, capture_output=True, text=True, check=False)
    return done.stderr.strip().rpartition("\n")[2] if done.returncode != 0 else ""


def unquoted(text: str) -> bytes:
    return text.encode("ascii").decode("unicode_escape").encode("latin-1")


@dataclass(eq=False)
class Process:
    parent: "Process | None" = None
    program: str = ""  # with its arguments; empty as long as it is a copy of its parent
    not_found: str = ""  # the program that it could not become
    stdout: str = ""  # the pipe, if it has been given one
    begun: str = ""  # a call that has not returned
    end: str = ""  # "status 1", or the name of a signal

    def command(self) -> str:
        return self.program or (self.parent.command() if self.parent else "")


@dataclass
class Trace:
    """Takes strace's lines one by one, up to the end of the daemon. A process may act, and end, before the
    call that made it returns."""

    daemon: Process = field(default_factory=Process)
    script: Process | None = None  # once run.sh has been started
    stdout: str = ""  # the pipe that run.sh was given
    not_found: list[str] = field(default_factory=list)  # programs
    refused: list[str] = field(default_factory=list)  # system calls of run.sh that a device may allow
    _processes: defaultdict[int, Process] = field(default_factory=lambda: defaultdict(Process))

    def feed(self, line: str) -> tuple[str, bytes]:
        """The pipe or socket that was written to, and the bytes; empty for any other event."""
        match = LINE.match(line)
        # What is written to files makes long lines, and many.
        if not match or self.daemon.end or WRITTEN_TO_FILE.match(match[2]):
            return "", b""
        process, event = self._processes[int(match[1])], match[2]
        if resumed := RESUMED.match(event):
            event, process.begun = process.begun + resumed[1], ""
        if event.endswith(UNFINISHED):
            process.begun = event.removesuffix(UNFINISHED)
        elif end := END.fullmatch(event):
            process.end = f"status {end[1]}" if end[1] else end[2]
            if process.not_found and process.end == NOT_FOUND:
                self.not_found.append(process.not_found)
        elif call := CALL.fullmatch(event):
            return self._call(process, *call.groups())
        return "", b""

    def running(self) -> dict[int, str]:
        """What is left of run.sh, and of what it has started: process id -> command."""
        return {pid: process.command() for pid, process in self._processes.items()
                if not process.end and self._is_of_script(process)}

    def failed(self) -> list[str]:
        """Programs that run.sh has started, with how they ended."""
        return [f"{process.program}: {process.end}" for process in self._processes.values()
                if process.program and process.end not in ("", SUCCESS)
                and process is not self.script and self._is_of_script(process)]

    def _call(self, process: Process, name: str, arguments: str, result: str, more: str) -> tuple[str, bytes]:
        succeeded = not result.startswith("-")
        channel = CHANNEL.match(arguments)
        if name.startswith("exec"):
            self._execute(process, arguments, succeeded, more)
        elif not succeeded:
            if self.script and "EPERM" in more:
                self.refused.append(name)
        elif name in ("fork", "vfork", "clone", "clone3"):
            if "CLONE_THREAD" not in arguments:
                translated = CHILD.match(more)
                self._processes[int(translated[1] if translated else result)].parent = process
        elif name.startswith("dup"):
            if channel and channel[2]:
                process.stdout = channel[1]
        elif channel and result != "0":
            cut = b" [...]\n" if '"...' in arguments else b""
            text = b"".join(map(unquoted, TEXT.findall(arguments))) + cut
            return channel[1], text or b"[%s bytes]\n" % result.encode()
        return "", b""

    def _execute(self, process: Process, arguments: str, succeeded: bool, more: str) -> None:
        path, *words = [unquoted(text).decode(errors="backslashreplace") for text in TEXT.findall(arguments)]
        if not succeeded:
            process.not_found = os.path.basename(path) if "ENOENT" in more else ""
            return
        process.program, process.not_found = " ".join(words) or path, ""
        if path == DAEMON and not self.daemon.program:
            self.daemon = process
        elif SCRIPT.fullmatch(path) and not self.script:
            process.program = "run.sh"
            self.script, self.stdout = process, process.stdout

    def _is_of_script(self, process: Process | None) -> bool:
        while process and process is not self.script:
            process = process.parent
        return process is not None
