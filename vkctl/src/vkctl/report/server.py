"""A page on this machine alone: 127.0.0.1, and an address that nobody can guess."""

from __future__ import annotations

import json
import secrets
import threading
from collections.abc import Iterator
from contextlib import contextmanager
from dataclasses import dataclass, field
from http import HTTPStatus
from http.server import BaseHTTPRequestHandler, ThreadingHTTPServer
from typing import Any, cast

ADDRESS = "127.0.0.1"
_PATIENCE = 10.0  # seconds that a request may take to come in
_PAGE, _JSON = "text/html; charset=utf-8", "application/json"


@dataclass
class Board:
    """What the page is told: its text, words on what goes on, and the part. Threads share it."""

    page: str = ""
    _words: dict[str, str] = field(default_factory=dict)
    _scene: bytes = b"null"
    _version: int = 0  # of the scene
    _guard: threading.Lock = field(default_factory=threading.Lock)

    def tell(self, **words: str) -> None:
        """Replace pieces of HTML by the names of the places they belong to."""
        with self._guard:
            self._words |= words

    def show(self, scene: dict[str, Any]) -> None:
        """Replace what is drawn."""
        text = json.dumps(scene, allow_nan=False, separators=(",", ":")).encode()
        with self._guard:
            self._scene, self._version = text, self._version + 1

    def answer(self, name: str) -> tuple[str, bytes] | None:
        """Kind and content of what is asked for by name; None where there is no such thing."""
        with self._guard:
            if name == "":
                return _PAGE, self.page.encode()
            if name == "state":
                state = {"version": self._version, "words": self._words}
                return _JSON, json.dumps(state).encode()
            if name == "scene":
                return _JSON, self._scene
            return None


class _Server(ThreadingHTTPServer):
    daemon_threads = True

    def __init__(self, board: Board, port: int) -> None:
        super().__init__((ADDRESS, port), _Handler)
        self.board = board
        self.token = secrets.token_urlsafe(24)
        # A page of elsewhere can have its own name lead here, and then asks with that name.
        self.hosts = {f"{name}:{self.server_port}" for name in (ADDRESS, "localhost")}

    def handle_error(self, request: object, client_address: object) -> None:
        """A browser that goes away in the middle is nothing to tell of."""


class _Handler(BaseHTTPRequestHandler):
    # A connection for each request: none is left that would be answered after the end.
    protocol_version = "HTTP/1.0"
    server_version, sys_version = "vkctl", ""
    timeout = _PATIENCE

    def do_GET(self) -> None:
        """Answer who comes to this machine by its own name and has the token."""
        server = cast(_Server, self.server)
        if self.headers.get_all("Host") is None or len(self.headers.get_all("Host", [])) != 1:
            return self._refuse(HTTPStatus.BAD_REQUEST)
        if self.headers["Host"].strip().lower() not in server.hosts:
            return self._refuse(HTTPStatus.FORBIDDEN)
        empty, _, rest = self.path.partition("/")
        token, slash, name = rest.partition("/")
        known = secrets.compare_digest(token.encode(), server.token.encode())
        found = server.board.answer(name) if known and slash and not empty else None
        if found is None:
            return self._refuse(HTTPStatus.NOT_FOUND)
        return self._send(HTTPStatus.OK, *found)

    def _refuse(self, status: HTTPStatus) -> None:
        self._send(status, "text/plain; charset=utf-8", status.phrase.encode())

    def _send(self, status: HTTPStatus, kind: str, content: bytes) -> None:
        self.send_response(status)
        for name, value in (
            ("Content-Type", kind),
            ("Content-Length", str(len(content))),
            ("Cache-Control", "no-store"),
            ("X-Content-Type-Options", "nosniff"),
            ("X-Frame-Options", "DENY"),
            ("Referrer-Policy", "no-referrer"),
            ("Cross-Origin-Resource-Policy", "same-origin"),
        ):
            self.send_header(name, value)
        self.end_headers()
        self.wfile.write(content)

    def log_message(self, format: str, *args: object) -> None:
        """Nothing: the terminal belongs to the run."""


@contextmanager
def serving(board: Board, port: int = 0) -> Iterator[str]:
    """Serve the board inside of the block; yields the page's address. Port 0 is any that is free.

    OSError where the port is taken.
    """
    try:
        server = _Server(board, port)
    except OSError as error:
        raise OSError(f"Port {port} can't be listened at: {error.strerror}") from None
    threading.Thread(target=server.serve_forever, daemon=True).start()
    try:
        yield f"http://{ADDRESS}:{server.server_port}/{server.token}/"
    finally:
        server.shutdown()
        server.server_close()
