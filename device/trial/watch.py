"""Runs one attempt under strace, and shows what happens while it happens."""

import os
import re
import select
import signal
import socket
import tempfile
import time
from contextlib import suppress
from io import FileIO

from command import Stopped

from device.run import Run
from device.syslog_receiver import LogLine
from device.trial.lines import Lines, listed, printable
from device.trial.trace import STRACE
from device.trial.verdict import Attempt
from device.virtual_device import VirtualDevice

NOT_FOUND = re.compile(r": ([^: ]+): (?:command )?not found$")  # which a shell finds out without trying
QUIET = 5.0  # seconds, after which an author wants to know what is waited for
INTERVAL = 0.05


class Watch:
    """Watches one start of the daemon."""

    def __init__(self) -> None:
        self._attempt = Attempt()
        self._trace = self._attempt.trace
        self._events = Lines(self._take_event)
        self._stdout = Lines(lambda line: self._show("stdout", f"{line}  (dropped on a device)"))
        self._stderr = Lines(self._show_stderr)
        # A socket, as under the service unit: a script cannot open it as /dev/stderr.
        self._stderr_here, self._stderr_there = socket.socketpair()
        self._stderr_channel = f"socket:[{os.fstat(self._stderr_there.fileno()).st_ino}]"
        self._explained = ""
        self._begin = self._last_event = time.monotonic()

    def run(self, device: VirtualDevice, timeout: float | None) -> Attempt:
        """Stops it when it takes too long, or the user has seen enough."""
        with tempfile.TemporaryDirectory() as directory, self._stderr_here:
            fifo = f"{directory}/strace"
            os.mkfifo(fifo)
            with open(os.open(fifo, os.O_RDONLY | os.O_NONBLOCK), "rb", buffering=0) as events:
                with self._stderr_there as stderr:
                    strace = [*STRACE, f"--output={fifo}", "/usr/bin/setpriv", "--pdeathsig=KILL"]
                    run = device.start(prefix=strace, stdout=stderr, stderr=stderr)
                try:
                    self._watch(run, events, timeout)
                except Stopped as stopped:
                    self._attempt.stopped = stopped
                run.kill()
            for pid in self._trace.running():  # the service unit does it, too
                with suppress(ProcessLookupError):
                    os.kill(pid, signal.SIGKILL)
            self._take_stderr()
        self._stdout.end()
        self._stderr.end()
        return self._attempt

    def _watch(self, run: Run, events: FileIO, timeout: float | None) -> None:
        ended = False
        while not self._trace.daemon.end and not ended:  # strace waits for what is left running
            ended = run.status is not None
            select.select([events], [], [], INTERVAL)
            if piece := events.read(1 << 16):
                self._events.add(piece)
                ended = False
            else:
                self._take_stderr()  # what was written by calls that are not traced
            self._explain()
            if timeout is not None and time.monotonic() > self._begin + timeout:
                self._attempt.stopped = f"stopped after {timeout:g} s"
                return

    def _take_event(self, event: str) -> None:
        channel, text = self._trace.feed(event)
        if channel == self._stderr_channel:
            self._take_stderr()
        elif channel and channel == self._trace.stdout:
            self._stdout.add(text)
        elif (line := LogLine.parse(text)).ident:
            self._show(line.level, f"{line.ident}: {line.text}")

    def _take_stderr(self) -> None:
        with suppress(BlockingIOError):
            while piece := self._stderr_here.recv(1 << 16, socket.MSG_DONTWAIT):
                self._stderr.add(piece)

    def _show_stderr(self, line: str) -> None:
        self._attempt.stderr = True
        if missing := NOT_FOUND.search(line):
            self._trace.not_found.append(missing[1])
        self._show("stderr", line)

    def _show(self, kind: str, text: str) -> None:
        self._last_event = time.monotonic()
        print(f"  {self._last_event - self._begin:8.3f} s  {kind:<7}  {printable(text)}", flush=True)

    def _explain(self) -> None:
        """Says what is waited for, once it has been quiet for a while."""
        if time.monotonic() < self._last_event + QUIET:
            return
        why = f"still running: {listed(self._trace.running().values())}"
        if not self._trace.script:
            why = "run.sh has not been started"
        elif self._trace.script.end:
            why = f"run.sh has ended, but its standard output is held; {why}"
        if why != self._explained:
            self._show("waiting", why)
            self._explained = why
