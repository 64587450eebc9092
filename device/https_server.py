"""The download server: HTTPS on an ephemeral port of this machine."""

import functools
import ssl
import threading
from collections.abc import Iterator
from dataclasses import dataclass
from http.server import BaseHTTPRequestHandler, ThreadingHTTPServer
from itertools import chain, repeat
from typing import TYPE_CHECKING
from urllib.parse import urlsplit

if TYPE_CHECKING:
    import trustme

HOST = "bundles.zelo.example"


@functools.cache
def authority() -> "trustme.CA":
    """The certificate authority that devices trust; each process has its own."""
    import trustme  # here, because the demo can be listed before anything is installed
    return trustme.CA(organization_name="Virtual device")


@functools.cache
def tls() -> ssl.SSLContext:
    context = ssl.SSLContext(ssl.PROTOCOL_TLS_SERVER)
    authority().issue_cert(HOST).configure_cert(context)
    return context


@dataclass(frozen=True)
class Answer:
    body: bytes = b""
    status: int = 200
    location: str = ""  # where a redirection leads: an address or a path of this server
    missing: int = 0  # bytes of the body that are announced; the connection is closed instead
    event: threading.Event | None = None  # waited for before anything is sent


class Handler(BaseHTTPRequestHandler):
    protocol_version = "HTTP/1.1"
    disable_nagle_algorithm = True  # else a body waits 40 ms for the client to confirm its head
    server: "Server"

    def setup(self) -> None:
        self.request.do_handshake()  # in the connection's own thread, so that nobody else waits for it
        super().setup()

    def do_GET(self) -> None:  # the name that the base class looks for
        answer = self.server.answer_for(self.path)
        if answer.event:
            answer.event.wait()
        self.send_response(answer.status)
        self.send_header("Content-Length", str(len(answer.body) + answer.missing))
        if answer.location:
            self.send_header("Location", answer.location)
        self.end_headers()
        self.wfile.write(answer.body)
        if answer.missing:
            self.close_connection = True

    def log_message(self, format: str, *args: object) -> None:
        pass  # `Server.requests` is the log


class Server(ThreadingHTTPServer):
    """Serves from construction to `close`."""

    daemon_threads = True
    block_on_close = False

    def __init__(self) -> None:
        super().__init__(("127.0.0.1", 0), Handler)
        self.socket = tls().wrap_socket(self.socket, server_side=True, do_handshake_on_connect=False)
        self.requests: list[str] = []  # the targets asked for, in order, queries included
        self._answers: dict[str, Iterator[Answer]] = {}
        self._thread = threading.Thread(target=self.serve_forever, args=(0.05,), daemon=True)
        self._thread.start()

    def url(self, path: str) -> str:
        return f"https://{HOST}:{self.server_address[1]}{path}"

    def answer(self, path: str, *answers: Answer) -> None:
        """What requests for `path` get: the answers one by one, the last one for ever after."""
        self._answers[path] = chain(answers, repeat(answers[-1]))

    def answer_for(self, target: str) -> Answer:
        self.requests.append(target)
        return next(self._answers.get(urlsplit(target).path, repeat(Answer(status=404))))

    def handle_error(self, request: object, client_address: object) -> None:
        pass  # a client that refuses the certificate or goes away is part of the game

    def close(self) -> None:
        self.shutdown()
        self._thread.join()
        self.server_close()
