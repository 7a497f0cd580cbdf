"""ClientHellos as octets: read, and normalised like the command does, written a second time."""


class Reader:
    def __init__(self, octets):
        self.octets = octets
        self.at = 0

    def take(self, count):
        if self.at + count > len(self.octets):
            raise ValueError("cut short")
        self.at += count
        return self.octets[self.at - count:self.at]

    def number(self, length):
        return int.from_bytes(self.take(length), "big")

    def vector(self, length):
        return self.take(self.number(length))

    def left(self):
        return len(self.octets) - self.at


def numbers(octets):
    return [int.from_bytes(octets[at:at + 2], "big") for at in range(0, len(octets), 2)]


def is_grease(number):
    return number & 0x0F0F == 0x0A0A and number >> 8 == number & 0xFF


class Hello:
    def __init__(self, message):
        reader = Reader(message)
        assert reader.take(1) == b"\1"
        body = Reader(reader.vector(3))
        self.version = body.number(2)
        self.random = body.take(32)
        self.session = body.vector(1)
        self.suites = numbers(body.vector(2))
        self.compressions = body.vector(1)
        self.has_extensions = body.left() > 0
        self.extensions = []
        if self.has_extensions:
            list_of_all = Reader(body.vector(2))
            while list_of_all.left():
                kind = list_of_all.number(2)
                self.extensions.append((kind, list_of_all.vector(2)))

    def body(self, kind):
        return next((body for one, body in self.extensions if one == kind), None)

    def key(self):
        """Equal for two hellos of one client."""
        def plain(number):
            return 0x0A0A if is_grease(number) else number

        def plain_list(body, length):
            return tuple(plain(one) for one in numbers(Reader(body).vector(length)))

        def normalised(kind, body):
            if kind in (0x0000, 0x0023, 0x0029, 0x002C, 0xFE0D) or is_grease(kind):
                return b""
            if kind in (0x000A, 0x000D, 0x0032):
                return plain_list(body, 2)
            if kind == 0x002B:
                return plain_list(body, 1)
            if kind == 0x0033:
                shares, all_shares = [], Reader(Reader(body).vector(2))
                while all_shares.left():
                    group = plain(all_shares.number(2))
                    shares.append((group, len(all_shares.vector(2))))
                return tuple(shares)
            return body

        kinds = sorted((plain(kind), repr(normalised(kind, body)))
                       for kind, body in self.extensions if kind != 0x0015)
        return (self.version, tuple(map(plain, self.suites)), self.compressions,
                self.has_extensions, tuple(kinds))
