"""A device of the long gate whose SNMP answers are hostile. The arc behind ROOT in what is asked is the number of a case."""

import random
import socket
import threading

ROOT = (1, 3, 6, 1, 4, 1, 99999)


def tlv(tag, content):
    size = len(content)
    return bytes([tag]) + (bytes([size]) if size < 128 else b"\x82" + size.to_bytes(2, "big")) + content


def integer(value):
    return value if isinstance(value, bytes) else tlv(2, value.to_bytes(value.bit_length() // 8 + 1, "big", signed=True))


def object_id(arcs):
    content = bytearray([40 * arcs[0] + arcs[1]])
    for arc in arcs[2:]:
        groups = [arc & 127]
        while (arc := arc >> 7) > 0:
            groups.append(arc & 127 | 128)
        content += bytes(reversed(groups))
    return tlv(6, bytes(content))


def parts(content):
    """The contents that stand one after the other."""
    found, at = [], 0
    while at < len(content):
        size, at = content[at + 1], at + 2
        if size > 127:
            size, at = int.from_bytes(content[at:at + size - 128], "big"), at + size - 128
        found.append(content[at:at + size])
        at += size
    return found


class Asked:
    """A request, and answers to it."""

    def __init__(self, datagram):
        (message,) = parts(datagram)
        version, self.community, pdu = parts(message)
        number, _, _, bindings = parts(pdu)
        self.version, self.number = version[-1], int.from_bytes(number, "big", signed=True)
        arcs, arc = [], 0
        for byte in parts(parts(bindings)[0])[0][1:]:
            arc = arc << 7 | byte & 127
            if byte < 128:
                arcs.append(arc)
                arc = 0
        self.case, *self.arcs = arcs[len(ROOT) - 2:]
        self.last = self.arcs[-1] if self.arcs else 0

    def good(self, value=tlv(4, b"value"), arcs=None, name=None, bindings=None, **lies):
        """An answer that is true but for what is given: the arcs of its name behind the number of the case, for one."""
        name = name or object_id((*ROOT, self.case, *([self.last + 1] if arcs is None else arcs)))
        bindings = tlv(0x30, name + value) if bindings is None else bindings
        pdu = integer(lies.get("number", self.number)) + integer(lies.get("error", 0)) + integer(0)
        return tlv(0x30, integer(lies.get("version", self.version)) + tlv(4, lies.get("community", self.community)) +
                   tlv(lies.get("tag", 0xA2), pdu + tlv(0x30, bindings)))


def with_length(message, level, length):
    """The message with a lie for the length at a level of nesting."""
    at = 0
    for tag in b"\x30\xA2\x30\x30\x06\x04"[:level + 1]:
        at = message.index(tag, at + (at > 0))
    return message[:at + 1] + length + message[at + 2:]


def flipped(message, seed):
    chance, data = random.Random(seed), bytearray(message)
    for _ in range(chance.randint(1, 6)):
        data[chance.randrange(len(data))] ^= 1 << chance.randrange(8)
    return bytes(data)


ENDLESS = ("walk: values of 7 KB without end", lambda asked: [asked.good(value=tlv(4, b"v" * 7000))])


def cases(chance):
    """(title, answers), of which the second gives the datagrams to what was asked. Those from another port are in a list."""
    nested = b""
    for _ in range(400):
        nested = tlv(0x30, nested)
    empty = tlv(0x30, object_id(ROOT) + tlv(5, b""))
    contents = {0x40: (b"", b"\1\2\3", b"\1" * 20), 0x41: (b"", b"\xff" * 5, b"\1" * 9),
                0x46: (b"", b"\xff" * 9, b"\xff" * 100), 2: (b"", b"\x80" * 9),
                4: (b"", b"\0", b"\n2026 FORGED", b"\xff" * 7000, b'"}]'), 5: (b"x",), 6: (b"", b"\xff" * 99, b"\x2b" * 900),
                0x44: (b"\x9f\x78\4\x7f\xc0\0\0",), 0x30: (nested,)}
    lies = {"number": (0, -1, 2**31, 2**63, -2**70, b"\2\0", b"\5\0", b"\2\x84\xff\xff\xff\xff"),
            "version": (0, 3, 255, -1, 2**40), "community": (b"", b"other", b"c" * 300, b"c" * 7000, b"\0"),
            "error": (2, 5, 2**31, -1, 2**40), "tag": (0xA0, 0xA4, 0, 0xFF),
            "bindings": (b"", empty * 2, empty * 400, b"\x30", b"\x30\x80", tlv(0x31, b""), tlv(0x30, b""), b"\xff" * 900,
                         tlv(0x30, object_id(ROOT)), b"\x30\x02\x06\xff"),
            "name": [tlv(6, content) for content in (b"", b"\x2b", b"\xff" * 20, b"\x80" * 200, b"\x2b" + b"\1" * 400, b"\xff",
                                                     b"\x2b\x8f\xff\xff\xff\x7f", b"\x2b\x90\x80\x80\x80\x00")],
            "value": [tlv(tag, content) for tag, some in contents.items() for content in some]}
    rows = [("no answer", lambda asked: []), ("nothing", lambda asked: [b""]), ("text", lambda asked: [b"hello"]),
            ("20 of another id", lambda asked: [asked.good(number=asked.number + 1)] * 20),
            ("another port", lambda asked: [[asked.good()]]), ("50 answers", lambda asked: [asked.good()] * 50),
            ("65,000 bytes", lambda asked: [asked.good(value=tlv(4, b"v" * 65_000))]),
            ("200 of zeros", lambda asked: [bytes(1400)] * 200),
            ("two ports", lambda asked: [[asked.good(number=7)], asked.good()]),
            ("walk: the same name", lambda asked: [asked.good(arcs=(5,))]),
            ("walk: names that fall", lambda asked: [asked.good(arcs=(max(500 - asked.last, 0),))]),
            ("walk: a circle of three", lambda asked: [asked.good(arcs=((asked.last + 1) % 3,))]),
            ("walk: names that grow", lambda asked: [asked.good(arcs=(*asked.arcs, 1))]),
            ("walk: leaps", lambda asked: [asked.good(arcs=(asked.last + 2**20,))])]
    rows += [(f"{part} {str(lie)[:30]}", lambda asked, part=part, lie=lie: [asked.good(**{part: lie})])
             for part, some in lies.items() for lie in some]
    rows += [(f"length {length!r} at level {level}",
              lambda asked, level=level, length=length: [with_length(asked.good(), level, length)])
             for level in range(6) for length in (b"\x80", b"\xff", b"\x7f", b"\0", b"\x84\xff\xff\xff\xff", b"\x84\x80\0\0\0",
                                                  b"\x84\x7f\xff\xff\xff", b"\x88" + b"\xff" * 8, b"\x82\0\1")]
    rows += [(f"the first {size} bytes", lambda asked, size=size: [asked.good()[:size]]) for size in range(1, 57)]
    return rows + [(f"flip {seed}", lambda asked, seed=seed: [flipped(asked.good(), seed)])
                   for seed in chance.sample(range(10**6), 60)]


class Device:
    """Answers until close()."""

    def __init__(self, rows):
        self.rows, self.is_open = rows, True
        self.sockets = [socket.socket(socket.AF_INET, socket.SOCK_DGRAM) for _ in range(2)]
        for one in self.sockets:
            one.bind(("127.0.0.1", 0))
        self.port = self.sockets[0].getsockname()[1]
        threading.Thread(target=self._serve, daemon=True).start()

    def _serve(self):
        own, other = self.sockets
        while True:
            datagram, peer = own.recvfrom(65_536)
            if not self.is_open:
                return
            try:
                asked = Asked(datagram)
                title, answers = self.rows[asked.case]
                # A walk that does not mean to go on comes to its end.
                ends = "walk" not in title and asked.last > 2
                for sent in [tlv(0x30, b"")] if ends else answers(asked):
                    (other if isinstance(sent, list) else own).sendto(sent[0] if isinstance(sent, list) else sent, peer)
            except (ValueError, IndexError, OverflowError, OSError):
                pass  # the agent asks for what fits no message, or an answer fits no datagram

    def close(self):
        self.is_open = False
        self.sockets[1].sendto(b"", ("127.0.0.1", self.port))
