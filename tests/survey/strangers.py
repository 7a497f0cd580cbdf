"""What stands at a port and is no TLS server, or one that means ill. Each ends with its client."""

import itertools
import random
import socket
import struct
import time
from collections.abc import Callable

from client_hello import ClientHello
from handmade import (CERTIFICATE, HANDSHAKE, SERVER_HELLO, TLS1_2, alert, measured, message,
                      record)
from listeners import Handler, read_record, wait_for_end
from proxies import close, reset, tarpit

LARGEST_RECORD = 1 << 14
INTERNAL_ERROR = 80
NO_CERTIFICATE_NEEDED = 0xC02F
HELLO_RETRY = bytes.fromhex("cf21ad74e59a6111be1d8c021e65b891c2a211167abb8c5e079e09e2c8a8339c")


def http(peer: socket.socket, _: int) -> None:
    peer.recv(65536)
    peer.sendall(b"HTTP/1.1 400 Bad Request\r\nConnection: close\r\nContent-Length: 0\r\n\r\n")


def ssh(peer: socket.socket, _: int) -> None:
    peer.sendall(b"SSH-2.0-server\r\n")
    wait_for_end(peer)


def echo(peer: socket.socket, _: int) -> None:
    while data := peer.recv(65536):
        peer.sendall(data)


def garbage(peer: socket.socket, count: int) -> None:
    """Bytes without a meaning, the same in each run."""
    peer.recv(65536)
    peer.sendall(random.Random(count).randbytes(4000))


def flood(peer: socket.socket, _: int) -> None:
    """No record at all, for ever."""
    peer.recv(65536)
    block = random.Random(1).randbytes(1 << 16)
    while True:
        peer.sendall(block)


def first_message(hello: ClientHello) -> bytes:
    """A good ServerHello for a suite that the client offers."""
    suite = NO_CERTIFICATE_NEEDED if NO_CERTIFICATE_NEEDED in hello.suites else hello.suites[0]
    body = struct.pack(">H", TLS1_2) + bytes(32) + b"\0" + struct.pack(">HB", suite, 0)
    return message(SERVER_HELLO, body)


def endless_handshake(peer: socket.socket, _: int) -> None:
    """A ServerHello, and one certificate of no bytes after the other."""
    hello = ClientHello(read_record(peer))
    peer.sendall(record(HANDSHAKE, TLS1_2, first_message(hello)))
    block = record(HANDSHAKE, TLS1_2, message(CERTIFICATE, measured(b"", 3)) * 1000)
    while True:
        peer.sendall(block)


def endless_alerts(peer: socket.socket, _: int) -> None:
    """Warnings that mean nothing: user_canceled."""
    peer.recv(65536)
    block = record(21, TLS1_2, b"\x01\x5a") * 1000
    while True:
        peer.sendall(block)


def huge_certificate(peer: socket.socket, _: int) -> None:
    """A message as long as its length can say, 16 MiB, and all of it comes."""
    hello = ClientHello(read_record(peer))
    size = (1 << 24) - 1
    peer.sendall(record(HANDSHAKE, TLS1_2, first_message(hello)))
    head = bytes([CERTIFICATE]) + size.to_bytes(3, "big") + (size - 3).to_bytes(3, "big")
    peer.sendall(record(HANDSHAKE, TLS1_2, head))
    block = record(HANDSHAKE, TLS1_2, b"\x30" * LARGEST_RECORD)
    for _ in range(size // LARGEST_RECORD):
        peer.sendall(block)
    wait_for_end(peer)


def trickle(peer: socket.socket, _: int) -> None:
    """A good answer, a byte every tenth of a second, so that there is always something new."""
    hello = ClientHello(read_record(peer))
    padding = message(CERTIFICATE, measured(b"\x30" * 4000, 3))
    for byte in itertools.chain(record(HANDSHAKE, TLS1_2, first_message(hello) + padding)):
        peer.sendall(bytes([byte]))
        time.sleep(0.1)


def retry_for_ever(peer: socket.socket, _: int) -> None:
    """Answers each hello of TLS 1.3 with the request for another one."""
    while True:
        hello = ClientHello(read_record(peer))
        extensions = struct.pack(">HHH", 43, 2, 0x0304) + struct.pack(">HHH", 51, 2, 24)
        body = (struct.pack(">H", TLS1_2) + HELLO_RETRY + measured(hello.session_id, 1) +
                struct.pack(">HB", 0x1301, 0) + measured(extensions, 2))
        peer.sendall(record(HANDSHAKE, TLS1_2, message(SERVER_HELLO, body)))


def internal_error(peer: socket.socket, _: int) -> None:
    """An alert that says nothing about what was asked."""
    hello = ClientHello(read_record(peer))
    peer.sendall(alert(INTERNAL_ERROR, max(0x0301, min(hello.version, TLS1_2))))


def always(fate: Callable[[socket.socket], None]) -> Handler:
    """Of a proxy's, for each connection."""
    def handle(peer: socket.socket, _: int) -> None:
        fate(peer)

    return handle


STRANGERS: dict[str, Handler] = {
    "http": http, "ssh": ssh, "echo": echo, "garbage": garbage, "flood": flood,
    "endless-handshake": endless_handshake, "endless-alerts": endless_alerts,
    "huge-certificate": huge_certificate, "trickle": trickle, "retry-for-ever": retry_for_ever,
    "internal-error": internal_error, "silent": always(tarpit),
    "closes-at-once": always(close), "resets-at-once": always(reset),
}
