"""One start of the daemon."""

import signal
import subprocess
from pathlib import Path

from device import PATIENCE, until
from device.syslog_receiver import SyslogReceiver


class Run:
    def __init__(self, process: subprocess.Popen[bytes], output: Path, syslog: SyslogReceiver):
        self._process = process
        self._output = output
        self._syslog = syslog
        self.pid = process.pid

    @property
    def status(self) -> int | None:
        """The exit status, the negative signal number, or None while it runs."""
        return self._process.poll()

    def wait(self, timeout: float | None = PATIENCE) -> int:
        """The status, once the daemon has ended; None waits as long as it takes."""
        return self._process.wait(timeout)

    def send(self, signum: int) -> None:
        self._process.send_signal(signum)

    def kill(self) -> None:
        self.send(signal.SIGKILL)
        self.wait()

    def wait_for_line(self, text: str) -> None:
        """Returns as soon as this start has logged a line that holds `text`."""
        until(lambda: any(text in line for line in self.log_lines()), f"no log line {text!r}")

    def log_lines(self) -> list[str]:
        """The texts that this start has logged; before it opens its log they carry no process id, and only
        the device's log has them."""
        return [line.text for line in self._syslog.lines(self.pid)]

    def output(self) -> str:
        """What the daemon, and the programs that it started, wrote on standard output and error."""
        return self._output.read_text(errors="replace")
