"""The device's log: a receiver on its /dev/log that keeps what arrives."""

import re
import socket
import threading
import time
import uuid
from dataclasses import dataclass, field
from pathlib import Path

from device import PATIENCE

LEVELS = {3: "err", 4: "warning", 5: "notice"}
DATAGRAM = re.compile(r"<(\d+)>\w{3} [ \d]\d ([\d:]{8}) ([^\[:]*)(?:\[(\d+)\])?: (.*)", re.DOTALL)


@dataclass(frozen=True)
class LogLine:
    text: str  # the whole datagram when it is not in the usual form
    priority: int = -1  # facility and level
    clock: str = ""  # hh:mm:ss where the sender is
    ident: str = ""
    pid: int | None = None
    arrived: float = field(default_factory=time.monotonic)

    @property
    def level(self) -> str:
        return LEVELS.get(self.priority & 7, str(self.priority))

    @classmethod
    def parse(cls, raw: bytes) -> "LogLine":
        text = raw.rstrip(b"\0").decode(errors="surrogateescape")
        if match := DATAGRAM.fullmatch(text):
            priority, clock, ident, pid, message = match.groups()
            return cls(message, int(priority), clock, ident, int(pid) if pid else None)
        return cls(text)


class SyslogReceiver:
    """Reads from construction to `close`, or to `fill`."""

    def __init__(self, path: Path):
        self._path = str(path)
        self._socket = socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM)
        self._socket.bind(self._path)
        path.chmod(0o666)
        self._sender = socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM)
        self._sender.connect(self._path)  # this stays when somebody removes the path
        self._sender.settimeout(PATIENCE)
        self._lines: list[LogLine] = []
        self._marker = uuid.uuid4().bytes
        self._marker_read = threading.Semaphore(0)
        self._reading = True
        self._thread = threading.Thread(target=self._read, daemon=True)
        self._thread.start()

    def lines(self, pid: int | None = None) -> list[LogLine]:
        """All that was logged until now, or what one process logged."""
        if self._reading:
            # Datagrams arrive in order: everything sent before the marker is read before it.
            self._sender.send(self._marker)
            if not self._marker_read.acquire(timeout=PATIENCE):
                raise TimeoutError("the log receiver has stopped")
        return [line for line in self._lines if pid in (None, line.pid)]

    def fill(self) -> None:
        """Stops reading and leaves no room in the socket, so that any program that logs has to wait."""
        self._stop_reading()
        with socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM) as sender:
            sender.setblocking(False)
            try:
                while True:
                    sender.sendto(b"<133>filler", self._path)
            except BlockingIOError:
                pass

    def close(self) -> None:
        if self._reading:
            self._stop_reading()
        self._sender.close()
        self._socket.close()

    def _stop_reading(self) -> None:
        self._reading = False
        self._sender.send(self._marker)  # wakes the thread
        self._thread.join()

    def _read(self) -> None:
        while self._reading:
            datagram = self._socket.recv(1 << 16)
            if datagram == self._marker:
                self._marker_read.release()
            else:
                self._lines.append(LogLine.parse(datagram))
