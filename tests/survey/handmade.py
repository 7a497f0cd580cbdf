"""A server of TLS up to 1.2, SSL 3 and SSL 2 that says what no server of today says any more: it
answers a hello with its first flight and never goes further. Its signatures are not valid."""

import dataclasses
import os
import socket
import ssl
import struct

from client_hello import EXTENDED_MASTER_SECRET, RENEGOTIATION, RENEGOTIATION_SUITE, ClientHello
from listeners import Listener, read_record, wait_for_end
from running import Running, Site, Starter

SSL3, TLS1_0, TLS1_1, TLS1_2 = 0x0300, 0x0301, 0x0302, 0x0303
ALERT, HANDSHAKE = 21, 22
SERVER_HELLO, CERTIFICATE, SERVER_KEY_EXCHANGE, SERVER_HELLO_DONE = 2, 11, 12, 14
PROTOCOL_VERSION, HANDSHAKE_FAILURE = 70, 40
RSA_SIGNATURE = b"\x5a" * 256
RSA_WITH_SHA256 = b"\x04\x01"
P256 = 23
P256_BASE_POINT = bytes.fromhex(
    "046b17d1f2e12c4247f8bce6e563a440f277037d812deb33a0f4a13945d898c296"
    "4fe342e2fe1a7f9b8ee7eb4a7c0f9e162bce33576b315ececbb6406837bf51f5")

# From the registry of TLS parameters.
NUMBERS = {
    "EXP-RC4-MD5": 0x0003, "RC4-MD5": 0x0004, "RC4-SHA": 0x0005, "DES-CBC-SHA": 0x0009,
    "DES-CBC3-SHA": 0x000A, "DHE-RSA-AES128-SHA": 0x0033, "AES128-SHA": 0x002F,
    "AES256-SHA": 0x0035, "ADH-AES128-SHA": 0x0034, "AES128-GCM-SHA256": 0x009C,
    "ECDHE-RSA-AES128-GCM-SHA256": 0xC02F, "ECDHE-RSA-AES256-GCM-SHA384": 0xC030,
    "ECDHE-RSA-CHACHA20-POLY1305": 0xCCA8, "DHE-RSA-AES128-GCM-SHA256": 0x009E,
    "DHE-RSA-AES256-GCM-SHA384": 0x009F,
}
SSL2_SUITES = bytes.fromhex("010080 0700c0")  # RC4-MD5, DES-CBC3-MD5


@dataclasses.dataclass(frozen=True)
class Answers:
    """What it answers: suites by version, in its own order."""
    suites: dict[int, tuple[str, ...]]
    ssl2: bool = False
    dh_bits: int = 2048
    compression: bool = False
    session_ids: bool = False
    secure_renegotiation: bool = True
    extended_master_secret: bool = True
    server_order: bool = False


def handmade_server(answers: Answers, certificate: str = "rsa") -> Starter:
    def start(site: Site) -> Running:
        with open(site.keys.certificate(certificate), encoding="ascii") as file:
            der = ssl.PEM_cert_to_DER_cert(file.read())

        def handle(peer: socket.socket, _: int) -> None:
            hello = ClientHello(read_record(peer))
            peer.sendall(answer(hello, answers, der))
            wait_for_end(peer)

        return Listener(site.port, handle)

    return start


def measured(data: bytes, width: int) -> bytes:
    """With its length before it."""
    return len(data).to_bytes(width, "big") + data


def message(kind: int, body: bytes) -> bytes:
    return bytes([kind]) + measured(body, 3)


def record(kind: int, version: int, body: bytes) -> bytes:
    return struct.pack(">BH", kind, version) + measured(body, 2)


def alert(description: int, version: int) -> bytes:
    return record(ALERT, version, bytes([2, description]))


def answer(hello: ClientHello, answers: Answers, certificate: bytes) -> bytes:
    if hello.is_ssl2 and hello.version == 2:
        return ssl2_server_hello(certificate) if answers.ssl2 else alert(PROTOCOL_VERSION, TLS1_0)
    version = max((version for version in answers.suites if version in hello.versions), default=0)
    if version == 0:
        return alert(PROTOCOL_VERSION, min(hello.version, TLS1_2))
    ours = {NUMBERS[name]: name for name in answers.suites[version]}
    common = ([number for number in ours if number in hello.suites] if answers.server_order
              else [number for number in hello.suites if number in ours])
    if not common:
        return alert(HANDSHAKE_FAILURE, version)
    return record(HANDSHAKE, version, flight(hello, answers, version, ours[common[0]], certificate))


def flight(hello: ClientHello, answers: Answers, version: int, suite: str,
           certificate: bytes) -> bytes:
    messages = message(SERVER_HELLO, server_hello(hello, answers, version, NUMBERS[suite]))
    if not suite.startswith("ADH"):
        messages += message(CERTIFICATE, measured(measured(certificate, 3), 3))
    exchange = key_exchange(suite, version, answers.dh_bits)
    if exchange:
        messages += message(SERVER_KEY_EXCHANGE, exchange)
    return messages + message(SERVER_HELLO_DONE, b"")


def server_hello(hello: ClientHello, answers: Answers, version: int, suite: int) -> bytes:
    compression = 1 if answers.compression and 1 in hello.compressions else 0
    session_id = os.urandom(32) if answers.session_ids else b""
    extensions = b""
    is_renegotiation_asked = (RENEGOTIATION in hello.extensions or
                              RENEGOTIATION_SUITE in hello.suites)
    if answers.secure_renegotiation and is_renegotiation_asked:
        extensions += struct.pack(">HHB", RENEGOTIATION, 1, 0)
    if (answers.extended_master_secret and version > SSL3 and
            EXTENDED_MASTER_SECRET in hello.extensions):
        extensions += struct.pack(">HH", EXTENDED_MASTER_SECRET, 0)
    return (struct.pack(">H", version) + os.urandom(32) + measured(session_id, 1) +
            struct.pack(">HB", suite, compression) +
            (measured(extensions, 2) if extensions else b""))


def key_exchange(suite: str, version: int, dh_bits: int) -> bytes:
    """Empty for a suite whose key the certificate's own takes."""
    if suite.startswith("ECDHE-"):
        parameters = struct.pack(">BH", 3, P256) + measured(P256_BASE_POINT, 1)
    elif suite.startswith(("DHE-", "ADH-")):
        prime = b"\xf1" * (dh_bits // 8)
        parameters = measured(prime, 2) + measured(b"\x02", 2) + measured(b"\x71" * len(prime), 2)
    else:
        return b""
    if suite.startswith("ADH-"):
        return parameters
    algorithm = RSA_WITH_SHA256 if version >= TLS1_2 else b""
    return parameters + algorithm + measured(RSA_SIGNATURE, 2)


def ssl2_server_hello(certificate: bytes) -> bytes:
    connection = os.urandom(16)
    body = (bytes([4, 0, 1, 0, 2]) +
            struct.pack(">HHH", len(certificate), len(SSL2_SUITES), len(connection)) +
            certificate + SSL2_SUITES + connection)
    return struct.pack(">H", 0x8000 | len(body)) + body
