"""The device's log: a receiver on its /dev/log that keeps what arrives."""

import re
import select
import socket
import threading
import time
import uuid
from dataclasses import dataclass, field
from pathlib import Path

from device import PATIENCE

LEVELS = {3: "err", 4: "warning", 5: "notice"}
DATAGRAM = re.compile(r"<(\d+)>\w{3} [ \d]\d [\d:]{8} ([^\[:]*)(?:\[(\d+)\])?: (.*)", re.DOTALL)


@dataclass(frozen=True)
class LogLine:
    raw: bytes
    priority: int  # facility and level; -1 when the datagram is not in the usual form
    ident: str
    pid: int | None
    text: str
    arrived: float = field(default_factory=time.monotonic)

    @property
    def level(self) -> str:
        return LEVELS.get(self.priority & 7, str(self.priority))

    @classmethod
    def parse(cls, raw: bytes) -> "LogLine":
        text = raw.rstrip(b"\0").decode(errors="surrogateescape")
        if match := DATAGRAM.fullmatch(text):
            priority, ident, pid, message = match.groups()
            return cls(raw, int(priority), ident, int(pid) if pid else None, message)
        return cls(raw, -1, "", None, text)


class SyslogReceiver:
    """Reads from construction to `close`, or to `pause`."""

    def __init__(self, path: Path):
        self._path = str(path)
        self._socket = socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM)
        self._socket.bind(self._path)
        path.chmod(0o666)
        self._sender = socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM)
        self._sender.connect(self._path)  # which lasts when somebody removes the path
        self._sender.settimeout(PATIENCE)
        self._lines: list[LogLine] = []
        self._changed = threading.Condition()
        self._waker, woken = socket.socketpair()
        thread = threading.Thread(target=self._read, args=(woken,), daemon=True)
        thread.start()
        self._thread: threading.Thread | None = thread

    def lines(self, pid: int | None = None) -> list[LogLine]:
        """All that was logged until now, or what one process logged."""
        self._catch_up()
        with self._changed:
            return [line for line in self._lines if pid in (None, line.pid)]

    def wait_for(self, text: str, pid: int | None = None, timeout: float = PATIENCE) -> LogLine:
        """The first line that holds `text`, as soon as it is there."""
        def found() -> LogLine | None:
            return next((line for line in self._lines if text in line.text and pid in (None, line.pid)), None)

        with self._changed:
            if line := self._changed.wait_for(found, timeout):
                return line
            raise TimeoutError(f"no log line {text!r} among {[line.text for line in self._lines]}")

    def pause(self) -> None:
        """Stops reading: once this has returned, what is sent stays in the socket."""
        if self._thread is not None:
            self._waker.close()
            self._thread.join()
            self._thread = None

    def fill(self) -> None:
        """Stops reading and leaves no room in the socket, so that any program that logs has to wait."""
        self.pause()
        with socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM) as sender:
            sender.setblocking(False)
            try:
                while True:
                    sender.sendto(b"<133>filler", self._path)
            except BlockingIOError:
                pass

    def close(self) -> None:
        self.pause()
        self._sender.close()
        self._socket.close()

    def _read(self, woken: socket.socket) -> None:
        with woken:
            while woken not in (ready := select.select([self._socket, woken], [], [])[0]):
                line = LogLine.parse(ready[0].recv(1 << 16))
                with self._changed:
                    self._lines.append(line)
                    self._changed.notify_all()

    def _catch_up(self) -> None:
        # Datagrams arrive in order: whatever a process that has ended sent came before this one.
        if self._thread is None:
            return
        marker = uuid.uuid4().bytes
        self._sender.send(marker)
        deadline = time.monotonic() + PATIENCE
        with self._changed:
            while not any(line.raw == marker for line in self._lines):
                if not self._changed.wait(deadline - time.monotonic()):
                    raise TimeoutError("the log receiver has stopped")
            self._lines = [line for line in self._lines if line.raw != marker]
