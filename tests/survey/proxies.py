"""Proxies that spoil connections to a server behind them, each in one way. Which connections, their
number decides, or what the client asks for; never chance."""

import contextlib
import select
import socket
import struct
import time
from collections.abc import Callable

from client_hello import ClientHello
from listeners import Handler, in_front_of, read_record, wait_for_end
from running import Starter, connect

Connection = socket.socket
Copy = Callable[[Connection, bytes], None]


def send_all(peer: Connection, data: bytes) -> None:
    peer.sendall(data)


def splice(client: Connection, server: Connection, to_client: Copy = send_all) -> None:
    """Copies both ways until one side ends."""
    other = {client: server, server: client}
    while True:
        readable, _, _ = select.select(list(other), [], [], client.gettimeout())
        if not readable:
            return
        for source in readable:
            data = source.recv(65536)
            if not data:
                return
            if source is server:
                to_client(client, data)
            else:
                server.sendall(data)


def close(client: Connection) -> None:
    """In order, after the hello was read: unread data would make it a reset."""
    client.recv(65536)


def reset(client: Connection) -> None:
    client.recv(65536)
    client.setsockopt(socket.SOL_SOCKET, socket.SO_LINGER, struct.pack("ii", 1, 0))


def tarpit(client: Connection) -> None:
    """Takes everything and never answers."""
    wait_for_end(client)


def spoiling(back: Starter, fate: Callable[[Connection], None],
             is_spoilt: Callable[[int], bool]) -> Starter:
    """The connections whose numbers are spoilt meet the fate; the others reach the server."""

    def make_handler(port: int) -> Handler:
        def handle(client: Connection, count: int) -> None:
            if is_spoilt(count):
                fate(client)
                return
            with connect(port) as server:
                splice(client, server)

        return handle

    return in_front_of(back, make_handler)


def picky(back: Starter, is_disliked: Callable[[ClientHello], bool],
          fate: Callable[[Connection], None] = lambda client: None) -> Starter:
    """What stumbles over some hellos and closes instead of sending an alert."""

    def make_handler(port: int) -> Handler:
        def handle(client: Connection, _: int) -> None:
            record = read_record(client)
            if is_disliked(ClientHello(record)):
                fate(client)
                return
            with connect(port) as server:
                server.sendall(record)
                splice(client, server)

        return handle

    return in_front_of(back, make_handler)


def delaying(back: Starter, seconds: float) -> Starter:
    """Waits before the first answer of each connection."""

    def make_handler(port: int) -> Handler:
        def handle(client: Connection, _: int) -> None:
            record = read_record(client)
            time.sleep(seconds)
            with connect(port) as server:
                server.sendall(record)
                splice(client, server)

        return handle

    return in_front_of(back, make_handler)


def send_bytewise(client: Connection, data: bytes) -> None:
    """One byte in each packet."""
    for index in range(len(data)):
        client.sendall(data[index:index + 1])


def bytewise(back: Starter) -> Starter:
    def make_handler(port: int) -> Handler:
        def handle(client: Connection, _: int) -> None:
            with connect(port) as server:
                splice(client, server, send_bytewise)

        return handle

    return in_front_of(back, make_handler)


HANDSHAKE_RECORD = 22
SMALL_RECORD = 20


def small_records(back: Starter) -> Starter:
    """Cuts the server's first flight into many records, as RFC 8446, 5.1 and its forerunners allow.
    Later ones are encrypted."""

    def make_handler(port: int) -> Handler:
        def handle(client: Connection, _: int) -> None:
            with connect(port) as server:
                server.sendall(read_record(client))
                copy_in_small_records(server, client)

        return handle

    return in_front_of(back, make_handler)


def copy_in_small_records(server: Connection, client: Connection) -> None:
    server.settimeout(0.3)  # the flight is over when nothing more comes
    with contextlib.suppress(TimeoutError):
        while True:
            record = read_record(server)
            body = record[5:]
            size = SMALL_RECORD if record[0] == HANDSHAKE_RECORD else max(len(body), 1)
            for start in range(0, len(body), size):
                part = body[start:start + size]
                client.sendall(record[:3] + struct.pack(">H", len(part)) + part)
    server.settimeout(client.gettimeout())
    splice(client, server)
