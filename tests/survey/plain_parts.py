"""What each protocol says in the clear before TLS begins, from the server's side. Strict: a client
that departs from its protocol is refused or left, as real servers do it."""

import re
import socket
import struct
import time
from collections.abc import Callable

from listeners import Handler, in_front_of, read_exactly
from proxies import splice
from running import Starter, connect

# Talks until TLS is to begin; false where that never comes.
PlainPart = Callable[[socket.socket], bool]


class Lines:
    """A connection read in lines. Byte by byte, so that nothing of what comes after is taken."""

    def __init__(self, peer: socket.socket) -> None:
        self._peer = peer

    def say(self, *lines: str) -> None:
        self._peer.sendall("".join(f"{line}\r\n" for line in lines).encode("ascii"))

    def hear(self) -> str:
        line = bytearray()
        while not line.endswith(b"\r\n"):
            line += read_exactly(self._peer, 1)
            if len(line) > 1000:
                raise EOFError
        return line[:-2].decode("ascii", "replace")


def talk(greeting: list[str], answers: dict[str, list[str]], start: str, unknown: str,
         needs: str = "") -> PlainPart:
    """Of protocols in lines: each command, a pattern, has its answer. TLS begins after the one that
    matches start, which has to come after the one that matches needs."""

    def run(peer: socket.socket) -> bool:
        lines = Lines(peer)
        lines.say(*greeting)
        has_needed = not needs
        while True:
            command = lines.hear()
            pattern = next((pattern for pattern in answers
                            if re.fullmatch(pattern, command, re.IGNORECASE)), None)
            if pattern is None or (pattern == start and not has_needed):
                lines.say(unknown)
                continue
            tag = command.split(" ")[0]
            lines.say(*(answer.replace("<tag>", tag) for answer in answers[pattern]))
            has_needed = has_needed or pattern == needs
            if pattern == start:
                return True

    return run


SMTP_ANSWERS = {
    r"EHLO \S+": ["250-mail.localhost greets you", "250-PIPELINING", "250-STARTTLS", "250 HELP"],
    r"STARTTLS": ["220 2.0.0 Ready to start TLS"],
    r"QUIT": ["221 2.0.0 Bye"],
}
smtp = talk(["220-mail.localhost ESMTP", "220 No unsolicited mail"], SMTP_ANSWERS, r"STARTTLS",
            "503 5.5.1 Bad sequence of commands", needs=r"EHLO \S+")
smtp_without_tls = talk(["220 mail.localhost ESMTP"],
                        {r"EHLO \S+": ["250-mail.localhost greets you", "250 HELP"],
                         r"QUIT": ["221 2.0.0 Bye"]}, "never", "502 5.5.1 Not implemented")
imap = talk(["* OK [CAPABILITY IMAP4rev1 STARTTLS LOGINDISABLED] ready"], {
    r"\S+ CAPABILITY": ["* CAPABILITY IMAP4rev1 STARTTLS LOGINDISABLED", "<tag> OK done"],
    r"\S+ STARTTLS": ["* OK still here", "<tag> OK Begin TLS negotiation now"],
}, r"\S+ STARTTLS", "* BAD what")
pop3 = talk(["+OK POP3 ready <1.2@localhost>"], {
    r"CAPA": ["+OK these", "TOP", "STLS", "."],
    r"STLS": ["+OK Begin TLS negotiation"],
}, r"STLS", "-ERR what")
ftp = talk(["220-Welcome", " to this server", "220 FTP ready"], {
    r"FEAT": ["211-Features:", " AUTH TLS", "211 End"],
    r"AUTH TLS": ["234 Proceed with negotiation"],
}, r"AUTH TLS", "530 Please login with USER and PASS")
sieve = talk(['"IMPLEMENTATION" "a server"', '"SIEVE" "fileinto"', '"STARTTLS"', 'OK "ready"'], {
    r"CAPABILITY": ['"STARTTLS"', "OK"],
    r"STARTTLS": ['OK "Begin TLS negotiation now"'],
}, r"STARTTLS", 'NO "what"')
nntp = talk(["200 news.localhost ready"], {
    r"CAPABILITIES": ["101 these", "VERSION 2", "READER", "STARTTLS", "."],
    r"STARTTLS": ["382 Continue with TLS negotiation"],
}, r"STARTTLS", "500 what")


def slow_smtp(peer: socket.socket) -> bool:
    """Mail servers look up the client's name first."""
    time.sleep(2.2)
    return smtp(peer)


START_TLS_OF_LDAP = b"1.3.6.1.4.1.1466.20037"


def ldap(peer: socket.socket) -> bool:
    """RFC 4511, 4.14: an extended request with this name alone, in lengths of one byte."""
    message = read_exactly(peer, 2)
    body = read_exactly(peer, message[1])
    identifier_size = body[1]
    identifier, operation = body[:2 + identifier_size], body[2 + identifier_size:]
    name = bytes([0x80, len(START_TLS_OF_LDAP)]) + START_TLS_OF_LDAP
    if message[0] != 0x30 or body[0] != 0x02 or operation != bytes([0x77, len(name)]) + name:
        return False
    result = b"\x0a\x01\x00\x04\x00\x04\x00"  # success, no name, no text
    answer = identifier + bytes([0x78, len(result)]) + result
    peer.sendall(bytes([0x30, len(answer)]) + answer)
    return True


def postgres(peer: socket.socket) -> bool:
    """The request SSLRequest of its frontend and backend protocol."""
    if struct.unpack(">II", read_exactly(peer, 8)) != (8, 80877103):
        return False
    peer.sendall(b"S")
    return True


MYSQL_CAPABILITIES = 0x00080000 | 0x8000 | 0x0800 | 0x0200 | 0x0001  # with CLIENT_SSL, 0x0800


def mysql(peer: socket.socket) -> bool:
    """Its handshake of version 10, then a packet SSLRequest: capabilities, the largest packet, a
    character set and 23 bytes of 0."""
    low, high = MYSQL_CAPABILITIES & 0xFFFF, MYSQL_CAPABILITIES >> 16
    greeting = (b"\x0a8.0.30\0" + struct.pack("<I", 7) + b"abcdefgh\0" +
                struct.pack("<HBHHB", low, 45, 2, high, 21) + bytes(10) + b"ijklmnopqrst\0" +
                b"mysql_native_password\0")
    peer.sendall(struct.pack("<I", len(greeting)) + greeting)  # packet number 0
    header, = struct.unpack("<I", read_exactly(peer, 4))
    if header != 32 | 1 << 24:
        return False
    body = read_exactly(peer, 32)
    capabilities, = struct.unpack("<I", body[:4])
    return bool(capabilities & 0x0800) and bool(capabilities & 0x0200) and body[9:] == bytes(23)


XMPP_HEADER = ("<?xml version='1.0'?><stream:stream xmlns='jabber:client' id='1' "
               "xmlns:stream='http://etherx.jabber.org/streams' from='localhost' version='1.0'>")
XMPP_FEATURES = ("<stream:features><starttls xmlns='urn:ietf:params:xml:ns:xmpp-tls'><required/>"
                 "</starttls></stream:features>")


def hear_until(peer: socket.socket, pattern: bytes) -> None:
    data = bytearray()
    while not re.search(pattern, data):
        data += read_exactly(peer, 1)
        if len(data) > 2000:
            raise EOFError


def xmpp(peer: socket.socket) -> bool:
    hear_until(peer, rb"<stream:stream [^>]*to=['\"]localhost['\"][^>]*>")
    peer.sendall(XMPP_HEADER.encode("ascii"))
    peer.sendall(XMPP_FEATURES.encode("ascii"))
    hear_until(peer, rb"<starttls xmlns=['\"]urn:ietf:params:xml:ns:xmpp-tls['\"]\s*"
                     rb"(/>|></starttls>)")
    peer.sendall(b"<proceed xmlns='urn:ietf:params:xml:ns:xmpp-tls'/>")
    return True


PLAIN_PARTS: dict[str, PlainPart] = {
    "smtp": smtp, "imap": imap, "pop3": pop3, "ftp": ftp, "ldap": ldap, "postgres": postgres,
    "mysql": mysql, "sieve": sieve, "xmpp": xmpp, "nntp": nntp,
}


def after(plain_part: PlainPart, back: Starter) -> Starter:
    """A TLS server behind a plain part."""

    def make_handler(port: int) -> Handler:
        def handle(client: socket.socket, _: int) -> None:
            if plain_part(client):
                with connect(port) as server:
                    splice(client, server)

        return handle

    return in_front_of(back, make_handler)
