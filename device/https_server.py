"""The download server: HTTPS on an ephemeral port of this machine, with an answer for every purpose."""

import functools
import ssl
import threading
from dataclasses import dataclass
from http.server import BaseHTTPRequestHandler, ThreadingHTTPServer
from pathlib import Path
from typing import TYPE_CHECKING
from urllib.parse import urlsplit

if TYPE_CHECKING:
    import trustme

HOST = "bundles.zelo.example"
AUTHORITY = "Virtual device"
BLOCK = 1 << 18


@functools.cache
def authority(name: str) -> "trustme.CA":
    """The certificate authority of that name; each process has its own."""
    import trustme  # here, because the demo can be listed before anything is installed
    return trustme.CA(organization_name=name)


@functools.cache
def certificate() -> "trustme.LeafCert":
    return authority(AUTHORITY).issue_cert(HOST)


@dataclass(frozen=True)
class Content:
    """The bytes, or the file, with status 200; not before `event` is set when there is one."""
    body: bytes | Path
    event: threading.Event | None = None

    def send(self, handler: "Handler") -> None:
        if self.event is not None:
            self.event.wait()
        size = self.body.stat().st_size if isinstance(self.body, Path) else len(self.body)
        handler.send_head(200, {"Content-Length": size})
        if isinstance(self.body, bytes):
            handler.wfile.write(self.body)
            return
        block = memoryview(bytearray(BLOCK))
        with open(self.body, "rb", buffering=0) as file:
            while count := file.readinto(block):
                handler.wfile.write(block[:count])


@dataclass(frozen=True)
class Status:
    """A status without a body, e.g. 503."""
    code: int

    def send(self, handler: "Handler") -> None:
        handler.send_head(self.code, {"Content-Length": 0})


@dataclass(frozen=True)
class Redirect:
    """Points somewhere else: an address or a path of this server."""
    location: str

    def send(self, handler: "Handler") -> None:
        handler.send_head(302, {"Location": self.location, "Content-Length": 0})


@dataclass(frozen=True)
class Stall:
    """Sends some bytes each second, and never comes to an end."""

    def send(self, handler: "Handler") -> None:
        handler.send_head(200, {"Content-Length": 1 << 20})
        while not handler.server.stopping.wait(1):
            handler.wfile.write(bytes(64))
        handler.close_connection = True


@dataclass(frozen=True)
class Drop:
    """Begins a body and closes the connection in the middle of it; at once when nothing is begun. The
    closing is not TLS's own, which would say that nothing is missing."""
    begun: bytes = b""

    def send(self, handler: "Handler") -> None:
        if self.begun:
            handler.send_head(200, {"Content-Length": len(self.begun) + 1})
            handler.wfile.write(self.begun)
        handler.close_connection = True


Answer = Content | Status | Redirect | Stall | Drop


class Handler(BaseHTTPRequestHandler):
    protocol_version = "HTTP/1.1"
    disable_nagle_algorithm = True  # else a body waits 40 ms for the client to confirm its head
    server: "Server"

    def setup(self) -> None:
        self.request.do_handshake()  # in the connection's own thread, so that nobody else waits for it
        super().setup()

    def do_GET(self) -> None:  # the name that the base class looks for
        self.server.answer_for(self.path).send(self)

    def send_head(self, code: int, headers: dict[str, object]) -> None:
        self.send_response(code)
        for name, value in headers.items():
            self.send_header(name, str(value))
        self.end_headers()

    def log_message(self, format: str, *args: object) -> None:
        pass  # `Server.requests` is the log


class Server(ThreadingHTTPServer):
    """Serves from construction to `close`."""

    daemon_threads = True
    block_on_close = False

    def __init__(self) -> None:
        super().__init__(("127.0.0.1", 0), Handler)
        context = ssl.SSLContext(ssl.PROTOCOL_TLS_SERVER)
        certificate().configure_cert(context)
        self.socket = context.wrap_socket(self.socket, server_side=True, do_handshake_on_connect=False)
        self.requests: list[str] = []  # the targets asked for, in order, queries included
        self.stopping = threading.Event()
        self._answers: dict[str, list[Answer]] = {}
        self._guard = threading.Lock()
        self._thread = threading.Thread(target=self.serve_forever, args=(0.05,), daemon=True)
        self._thread.start()

    @property
    def port(self) -> int:
        return self.server_address[1]

    def answer(self, path: str, *answers: Answer) -> None:
        """What requests for `path` get: the answers one by one, the last one for ever after."""
        with self._guard:
            self._answers[path] = list(answers)

    def answer_for(self, target: str) -> Answer:
        with self._guard:
            self.requests.append(target)
            answers = self._answers.get(urlsplit(target).path, [Status(404)])
            return answers.pop(0) if len(answers) > 1 else answers[0]

    def handle_error(self, request: object, client_address: object) -> None:
        pass  # a client that refuses the certificate or goes away is part of the game

    def close(self) -> None:
        self.stopping.set()
        self.shutdown()
        self._thread.join()
        self.server_close()
