"""Reading a client's hello: what hand-made servers and picky proxies decide by."""

import struct

SUPPORTED_GROUPS, SIGNATURES, SUPPORTED_VERSIONS, KEY_SHARE = 10, 13, 43, 51
RENEGOTIATION, EXTENDED_MASTER_SECRET, SESSION_TICKET, SERVER_NAME = 0xFF01, 23, 35, 0
RENEGOTIATION_SUITE = 0x00FF


class ClientHello:
    """The fields of a hello in one record of TLS, or of SSL 2."""

    def __init__(self, record: bytes) -> None:
        self.size = len(record)
        self.extensions: dict[int, bytes] = {}
        self.session_id = b""
        self.compressions = [0]
        self.is_ssl2 = bool(record[0] & 0x80)
        if self.is_ssl2:
            self._read_ssl2(record[2:])
        else:
            self._read_tls(record[9:])

    def _read_ssl2(self, body: bytes) -> None:
        self.version, size = struct.unpack(">HH", body[1:5])
        self.suites = [int.from_bytes(body[index:index + 3], "big")
                       for index in range(9, 9 + size, 3)]

    def _read_tls(self, body: bytes) -> None:
        self.version, = struct.unpack(">H", body[:2])
        self.session_id, rest = vector(body[34:], 1)
        suites, rest = vector(rest, 2)
        self.suites = numbers(suites)
        compressions, rest = vector(rest, 1)
        self.compressions = list(compressions)
        extensions, _ = vector(rest, 2) if rest else (b"", b"")
        while extensions:
            kind, = struct.unpack(">H", extensions[:2])
            self.extensions[kind], extensions = vector(extensions[2:], 2)

    @property
    def versions(self) -> list[int]:
        """All that it offers, where it says so; else up to the one that it names."""
        if SUPPORTED_VERSIONS in self.extensions:
            return numbers(self.extensions[SUPPORTED_VERSIONS][1:])
        return list(range(0x0300, self.version + 1)) if not self.is_ssl2 else [self.version]

    @property
    def groups(self) -> list[int]:
        return numbers(self.extensions.get(SUPPORTED_GROUPS, b"")[2:])


def vector(data: bytes, width: int) -> tuple[bytes, bytes]:
    """A length of so many bytes, what it measures, and the rest."""
    size = int.from_bytes(data[:width], "big")
    return data[width:width + size], data[width + size:]


def numbers(data: bytes) -> list[int]:
    return [number for number, in struct.iter_unpack(">H", data[:len(data) // 2 * 2])]
