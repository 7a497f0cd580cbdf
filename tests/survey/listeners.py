"""Servers that are threads of this process: a listener, TLS by Python's own module, and sockets
read in whole units."""

import contextlib
import socket
import ssl
import struct
import threading
from collections.abc import Callable

from running import Running, Site, Starter

# A connection that nobody ends is ended, so that no thread outlives its client for long.
IDLE_SECONDS = 60

# A connection and its number, from 1 on.
Handler = Callable[[socket.socket, int], None]


class Listener:
    """Runs the handler in a thread of its own for each connection."""

    def __init__(self, port: int, handler: Handler) -> None:
        self._handler = handler
        self._count = 0
        self._open: set[socket.socket] = set()
        self._lock = threading.Lock()
        self._socket = socket.create_server(("127.0.0.1", port), backlog=256)
        threading.Thread(target=self._accept, daemon=True).start()

    def _accept(self) -> None:
        with contextlib.suppress(OSError):  # the listener was closed
            while True:
                peer, _ = self._socket.accept()
                peer.setsockopt(socket.IPPROTO_TCP, socket.TCP_NODELAY, 1)
                peer.settimeout(IDLE_SECONDS)
                self._count += 1
                with self._lock:
                    self._open.add(peer)
                threading.Thread(target=self._serve, args=(peer, self._count), daemon=True).start()

    def _serve(self, peer: socket.socket, count: int) -> None:
        try:
            # A client ends when it likes, and what it sends may be anything.
            with contextlib.suppress(OSError, EOFError, struct.error, IndexError):
                self._handler(peer, count)
        finally:
            with self._lock:
                self._open.discard(peer)
            peer.close()

    def stop(self) -> None:
        # shutdown wakes the thread in accept; close alone does not.
        with contextlib.suppress(OSError):
            self._socket.shutdown(socket.SHUT_RDWR)
        self._socket.close()
        with self._lock:
            for peer in self._open:
                with contextlib.suppress(OSError):
                    peer.shutdown(socket.SHUT_RDWR)


class Both:
    """A server in front of another one."""

    def __init__(self, front: Running, back: Running) -> None:
        self._parts = (front, back)

    def stop(self) -> None:
        for part in self._parts:
            part.stop()


def listening(handler: Handler) -> Starter:
    return lambda site: Listener(site.port, handler)


def in_front_of(back: Starter, make_handler: Callable[[int], Handler]) -> Starter:
    """make_handler is told the port of the server behind."""

    def start(site: Site) -> Running:
        behind = site.behind()
        server = back(behind)
        try:
            return Both(Listener(site.port, make_handler(behind.port)), server)
        except BaseException:
            server.stop()
            raise

    return start


def python_server(make_context: Callable[[Site], ssl.SSLContext]) -> Starter:
    """Python's module ssl, one thread for each connection."""

    def start(site: Site) -> Running:
        context = make_context(site)

        def handle(peer: socket.socket, _: int) -> None:
            with context.wrap_socket(peer, server_side=True) as connection:
                while connection.recv(4096):
                    pass

        return Listener(site.port, handle)

    return start


def read_exactly(peer: socket.socket, size: int) -> bytes:
    data = bytearray()
    while len(data) < size:
        part = peer.recv(size - len(data))
        if not part:
            raise EOFError
        data += part
    return bytes(data)


def read_record(peer: socket.socket) -> bytes:
    """A record of TLS with its header, or a hello of SSL 2."""
    header = read_exactly(peer, 5)
    if header[0] & 0x80:
        size = struct.unpack(">H", header[:2])[0] & 0x7FFF
        return header + read_exactly(peer, size - 3)
    return header + read_exactly(peer, struct.unpack(">H", header[3:5])[0])


def wait_for_end(peer: socket.socket) -> None:
    """Reads and drops all until the client goes."""
    while peer.recv(65536):
        pass
