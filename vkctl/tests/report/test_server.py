"""Who is answered by the server of a live page, and who isn't."""

from __future__ import annotations

import http.client
import socket
from collections.abc import Iterator
from urllib.parse import urlsplit

import pytest

from vkctl.report.server import Board, serving

Answer = tuple[int, str, dict[str, str]]


@pytest.fixture
def address() -> Iterator[str]:
    board = Board("<p>the page</p>")
    board.tell(now="<p>words</p>")
    board.show({"a": 1})
    with serving(board) as found:
        yield found


def ask(address: str, path: str, method: str = "GET", hosts: tuple[str, ...] = ()) -> Answer:
    """Ask for a path, with Host as in the address or as given."""
    parts = urlsplit(address)
    assert parts.port is not None
    connection = http.client.HTTPConnection("127.0.0.1", parts.port, timeout=300)
    connection.putrequest(method, path, skip_host=True)
    for host in hosts or (parts.netloc,):
        connection.putheader("Host", host)
    connection.endheaders()
    response = connection.getresponse()
    found = response.status, response.read().decode(), dict(response.getheaders())
    connection.close()
    return found


def test_page_words_and_part_come_to_who_has_the_address(address: str) -> None:
    path = urlsplit(address).path
    status, text, headers = ask(address, path)
    assert (status, text) == (200, "<p>the page</p>")
    assert headers["Cache-Control"] == "no-store"
    assert headers["Referrer-Policy"] == "no-referrer"
    assert headers["X-Frame-Options"] == "DENY"
    assert ask(address, path + "state")[1] == '{"version": 1, "words": {"now": "<p>words</p>"}}'
    assert ask(address, path + "scene")[1] == '{"a":1}'


@pytest.mark.parametrize(
    "path", ["/", "/state", "/scene", "/wrong/", "/wrong/state", "//", "/../", "/%2e%2e/etc"]
)
def test_without_the_token_there_is_nothing(address: str, path: str) -> None:
    status, text, _ = ask(address, path)
    assert (status, text) == (404, "Not Found")


def test_a_token_is_taken_whole_and_new_each_time(address: str) -> None:
    path = urlsplit(address).path
    for other in (path[:-2] + "/", path.lower() + "x/", path[:-1], path + "../", path + "page"):
        assert ask(address, other)[0] == 404, other
    with serving(Board()) as second:
        assert urlsplit(second).path != path
    assert len(path) > 30


@pytest.mark.parametrize("host", ["evil.example", "evil.example:{port}", "127.0.0.1", "localhost"])
def test_another_host_is_refused_even_with_the_token(address: str, host: str) -> None:
    parts = urlsplit(address)
    status, text, _ = ask(address, parts.path, hosts=(host.format(port=parts.port),))
    assert (status, text) == (403, "Forbidden")


def test_localhost_with_the_port_is_this_machine(address: str) -> None:
    parts = urlsplit(address)
    assert ask(address, parts.path, hosts=(f"localhost:{parts.port}",))[0] == 200


def test_no_host_and_two_hosts_are_refused(address: str) -> None:
    parts = urlsplit(address)
    assert ask(address, parts.path, hosts=(parts.netloc, "evil.example"))[0] == 400
    with socket.create_connection(("127.0.0.1", parts.port or 0), timeout=300) as plain:
        plain.sendall(f"GET {parts.path} HTTP/1.0\r\n\r\n".encode())
        assert plain.recv(1000).split()[1] == b"400"


@pytest.mark.parametrize("method", ["POST", "PUT", "DELETE", "OPTIONS"])
def test_nothing_can_be_sent_to_it(address: str, method: str) -> None:
    assert ask(address, urlsplit(address).path, method)[0] == 501


def test_it_listens_on_this_machine_alone_and_ends_with_its_block() -> None:
    with serving(Board("page")) as address:
        parts = urlsplit(address)
        assert parts.hostname == "127.0.0.1"
        assert parts.port is not None
        with (
            pytest.raises(OSError, match="refused"),
            socket.create_connection(("127.0.0.2", parts.port), timeout=300),
        ):
            pass
    with pytest.raises(ConnectionRefusedError):
        ask(address, parts.path)


def test_a_port_that_is_taken_is_an_error() -> None:
    with serving(Board()) as address, pytest.raises(OSError, match="in use"):
        with serving(Board(), urlsplit(address).port or 0):
            pass
