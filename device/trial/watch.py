"""Runs one attempt, and shows what happens while it happens."""

import os
import re
import select
import signal
import time
from contextlib import suppress

from command import Stopped

from device.run import Run
from device.syslog_receiver import LogLine
from device.trial.lines import Lines, printable, shortened
from device.trial.trace import STRACE, Trace
from device.trial.verdict import Attempt
from device.trial.waiting import UNTRACED, waited_for
from device.virtual_device import VirtualDevice

STAGE = re.compile(":main:[A-Z][a-z]+ing ")
NOT_FOUND = re.compile(r": ([^: ]+): (?:command )?not found$")
LAST_STAGE = ":main:Running installer"
SCRIPT_FAILED = "03"
SIGNALLED = 128
QUIET = 5.0  # seconds, after which an author wants to know what is waited for
INTERVAL = 0.05


class Watch:
    """Of one start of the daemon; `traced` says whether strace may be used."""

    def __init__(self, device: VirtualDevice, traced: bool):
        self.interrupted: Stopped | None = None
        self.trace = Trace()
        self._device = device
        self._traced = traced
        self._sources: dict[int, Lines] = {}
        self._output = Lines(lambda line: self._show("stdout", f"{line}  (dropped on a device)"))
        self._logged = len(device.syslog.lines())
        self._ui_lines = len(device.shell_lines())
        self._last_stage = self._wrote_stderr = False
        self._explained = ""
        self._begin = self._last_event = time.monotonic()

    def run(self, timeout: float | None) -> Attempt:
        """Stops it when it takes too long, or the user has seen enough."""
        stopped, ended = "", False
        run = self._start()
        try:
            while self._take() or not ended:
                # strace waits for what is left running.
                ended = run.status is not None or bool(self.trace.daemon_end)
                self._explain()
                if timeout and time.monotonic() > self._begin + timeout:
                    stopped = f"stopped after {timeout:g} s"
                    break
        except Stopped as interruption:
            self.interrupted, stopped = interruption, str(interruption)
        running = self.trace.running()
        status = None if stopped else self._status(run)
        run.kill()
        for pid in running:  # the service unit does it, too
            with suppress(ProcessLookupError):
                os.kill(pid, signal.SIGKILL)
        last = time.monotonic() + 1  # what cannot be confined may go on writing
        while self._take() and time.monotonic() < last:
            pass
        for descriptor in list(self._sources):
            self._close(descriptor)
        self._output.end()
        left = running.values() if stopped else self.trace.left
        return self._attempt(status, stopped, shortened(left))

    def shown(self) -> list[str]:
        """By the UI shell."""
        return [line.partition(": ")[2] for line in self._device.shell_lines()[self._ui_lines:]]

    def _start(self) -> Run:
        stderr, to_stderr = os.pipe()
        trace, to_trace = os.pipe()
        # Whatever ends strace ends what it traces.
        strace = [*STRACE, f"--output=/proc/self/fd/{to_trace}", "/usr/bin/setpriv", "--pdeathsig=KILL"]
        run = self._device.start(prefix=strace if self._traced else (), pass_fds=(to_trace,),
                                 stdout=to_stderr, stderr=to_stderr, start_new_session=True)
        for descriptor in to_stderr, to_trace:
            os.close(descriptor)
        self._sources = {stderr: Lines(self._take_stderr),
                         trace: Lines(lambda line: self._output.add(self.trace.feed(line)))}
        return run

    def _take(self) -> bool:
        """Shows what is new; False when nothing has come from the processes."""
        select.select(list(self._sources), [], [], INTERVAL)
        log = self._device.syslog.lines()[self._logged:]
        self._logged += len(log)
        # A stage is announced before anything is written in it, and what follows is logged after that.
        announced = max((number for number, line in enumerate(log, 1) if STAGE.search(line.text)), default=0)
        for line in log[:announced]:
            self._take_log(line)
        ready = select.select(list(self._sources), [], [], 0)[0]
        for descriptor in ready:
            if piece := os.read(descriptor, 1 << 16):
                self._sources[descriptor].add(piece)
            else:
                self._close(descriptor)
        for line in log[announced:]:
            self._take_log(line)
        return bool(ready)

    def _close(self, descriptor: int) -> None:
        self._sources.pop(descriptor).end()
        os.close(descriptor)

    def _take_log(self, line: LogLine) -> None:
        self._last_stage |= line.text.endswith(LAST_STAGE)
        process = f"[{line.pid}]" if line.pid else ""
        self._show(line.level, f"{line.ident}{process}: {line.text}")

    def _take_stderr(self, line: str) -> None:
        self._wrote_stderr = True
        if missing := NOT_FOUND.search(line):  # which a shell finds out without trying
            self.trace.not_found.append(missing[1])
        self._show("stderr", line)

    def _show(self, kind: str, text: str) -> None:
        self._last_event = time.monotonic()
        print(f"  {self._last_event - self._begin:8.3f} s  {kind:<7}  {printable(text)}", flush=True)

    def _explain(self) -> None:
        """Says what is waited for, once it has been quiet for a while."""
        if time.monotonic() < self._last_event + QUIET or not self._last_stage:
            return
        why = waited_for(self.trace) if self._traced else UNTRACED
        if why != self._explained:
            self._show("waiting", why)
            self._explained = why

    def _status(self, run: Run) -> int:
        """Of the daemon; a signal as a negative number."""
        if match := re.fullmatch("status ([0-9]+)", self.trace.daemon_end):
            return int(match[1])
        if self.trace.daemon_end:
            return -signal.Signals[self.trace.daemon_end]
        status = run.wait()
        return status if status <= SIGNALLED else SIGNALLED - status

    def _attempt(self, status: int | None, stopped: str, left: list[str]) -> Attempt:
        codes = re.findall(r"showError (\d\d)", "\n".join(self.shown()))
        code = codes[-1] if codes else ""
        succeeded = status == 0 and not code
        reached = bool(self.trace.script) if self._traced else succeeded or code == SCRIPT_FAILED
        return Attempt(status, code, stopped, reached, self.trace.script_end, self._wrote_stderr,
                       shortened(self.trace.not_found), left, shortened(self.trace.refused),
                       self.trace.restarts)
