"""A device of the long gate whose SNMP answers are hostile. The number of a case is the arc behind ROOT in what is asked."""

import random
import socket
import threading

ROOT = (1, 3, 6, 1, 4, 1, 99999)


def tlv(tag, content, length=None):
    """`length` is the bytes that stand for the length; None for the true one."""
    if length is None:
        size = len(content)
        length = bytes([size]) if size < 128 else b"\x82" + size.to_bytes(2, "big")
    return bytes([tag]) + length + content


def integer(value):
    return tlv(2, value.to_bytes(value.bit_length() // 8 + 1, "big", signed=True))


def object_id(arcs):
    content = bytearray([40 * arcs[0] + arcs[1]])
    for arc in arcs[2:]:
        groups = [arc & 127]
        while (arc := arc >> 7) > 0:
            groups.append(arc & 127 | 128)
        content += bytes(reversed(groups))
    return tlv(6, bytes(content))


def parts(content):
    """The tags and contents that stand one after the other."""
    found, at = [], 0
    while at < len(content):
        tag, size, at = content[at], content[at + 1], at + 2
        if size > 127:
            size, at = int.from_bytes(content[at:at + size - 128], "big"), at + size - 128
        found.append((tag, content[at:at + size]))
        at += size
    return found


class Asked:
    """A request, and the answers to it."""

    def __init__(self, datagram):
        (_, message), = parts(datagram)
        version, community, (_, pdu) = parts(message)
        self.version, self.community = version[1][-1], community[1]
        number, _, _, (_, bindings) = parts(pdu)
        self.number = int.from_bytes(number[1], "big", signed=True)
        content = parts(parts(bindings)[0][1])[0][1]
        self.arcs, arc = [content[0] // 40, content[0] % 40], 0
        for byte in content[1:]:
            arc = arc << 7 | byte & 127
            if byte < 128:
                self.arcs.append(arc)
                arc = 0
        self.case = self.arcs[len(ROOT)]
        self.last = self.arcs[-1] if len(self.arcs) > len(ROOT) + 1 else 0

    def below(self, *arcs):
        return (*ROOT, self.case, *arcs)

    def good(self, value=tlv(4, b"value"), arcs=None, number=None, tag=0xA2, error=0, index=0, community=None, version=None,
             bindings=None, name=None):
        if bindings is None:
            name = object_id(arcs or self.below(self.last + 1)) if name is None else name
            bindings = tlv(0x30, name + value)
        pdu = (number if isinstance(number, bytes) else integer(self.number if number is None else number)) + integer(error) + \
            integer(index) + tlv(0x30, bindings)
        return tlv(0x30, integer(self.version if version is None else version) +
                   tlv(4, self.community if community is None else community) + tlv(tag, pdu))


def with_length(asked, level, length):
    """A good answer in which the length at a level of nesting is a lie."""
    message = asked.good()
    at = 0
    for tag in (0x30, 0xA2, 0x30, 0x30, 6, 4)[:level + 1]:
        at = message.index(bytes([tag]), at + (at > 0))
    return message[:at + 1] + length + message[at + 2:]


def cases(rng):
    """(title, answers), of which the second gives the datagrams to what was asked. Those from another port are in a list."""
    def one(title, **lies):
        return title, lambda asked: [asked.good(**lies)]

    rows = [("no answer", lambda asked: []), ("nothing", lambda asked: [b""]), ("text", lambda asked: [b"hello"]),
            ("another id", lambda asked: [asked.good(number=asked.number + 1)] * 20), ("the question", lambda asked: [asked.good(tag=0xA0)]),
            ("from another port", lambda asked: [[asked.good()]]), ("50 answers", lambda asked: [asked.good()] * 50),
            ("65,000 bytes", lambda asked: [asked.good(value=tlv(4, b"v" * 65_000))]), ("200 of zeros", lambda asked: [bytes(1400)] * 200),
            ("from two ports", lambda asked: [[asked.good(number=7)], asked.good()])]
    rows += [one(f"id {number!r}", number=number) for number in (0, -1, 2**31, 2**63, -2**70, b"\2\0", b"\5\0", b"\2\x84\xff\xff\xff\xff")]
    rows += [one(f"version {version}", version=version) for version in (0, 3, 255, -1, 2**40)]
    rows += [one(f"community of {len(name)}", community=name) for name in (b"", b"other", b"c" * 300, b"c" * 7000, b"\0")]
    rows += [one(f"error {error}, index {index}", error=error, index=index) for error, index in ((2, 1), (5, 0), (2**31, 99), (-1, -1), (1, 2**40))]
    rows += [one(f"{count} bindings", bindings=tlv(0x30, object_id(ROOT) + tlv(5, b"")) * count) for count in (0, 2, 400)]
    rows += [one(f"bindings {content[:8]!r}", bindings=content) for content in
             (b"\x30", b"\x30\x80", tlv(0x31, b""), tlv(0x30, b""), tlv(0x30, object_id(ROOT)), b"\x30\x02\x06\xff", b"\xff" * 900)]
    rows += [one(f"name {content[:8]!r}", name=tlv(6, content)) for content in (b"", b"\x2b", b"\xff" * 20, b"\x80" * 200, b"\x2b" + b"\1" * 400,
                                                                                b"\x2b\x8f\xff\xff\xff\x7f", b"\x2b\x90\x80\x80\x80\x00", b"\xff")]
    values = {0x40: (b"", b"\1\2\3", b"\1" * 20), 0x41: (b"", b"\xff" * 5, b"\1" * 9), 0x46: (b"", b"\xff" * 9, b"\xff" * 100), 2: (b"", b"\x80" * 9),
              4: (b"", b"\0", b"\n2026 FORGED", b"\xff" * 7000, b'"}]'), 5: (b"x",), 6: (b"", b"\xff" * 99, b"\x2b" * 900), 0x44: (b"\x9f\x78\4\x7f\xc0\0\0",)}
    rows += [one(f"value {tag:#x} {content[:6]!r}", value=tlv(tag, content)) for tag, contents in values.items() for content in contents]
    nested = b""
    for _ in range(400):
        nested = tlv(0x30, nested)
    rows.append(one("a value in 400 sequences", value=nested))
    lengths = (b"\x80", b"\xff", b"\x7f", b"\0", b"\x84\xff\xff\xff\xff", b"\x84\x80\0\0\0", b"\x84\x7f\xff\xff\xff", b"\x88" + b"\xff" * 8, b"\x82\0\1")
    rows += [(f"length {length!r} at level {level}", lambda asked, level=level, length=length: [with_length(asked, level, length)])
             for level in range(6) for length in lengths]
    rows += [(f"the first {size} bytes", lambda asked, size=size: [asked.good()[:size]]) for size in range(1, 57)]
    for number in range(60):
        seed = rng.random()
        rows.append((f"bits {number}", lambda asked, seed=seed: [flipped(asked.good(), seed)]))
    walks = [("the same name", lambda asked: [asked.good(arcs=asked.below(5))]), ("names that fall", lambda asked: [asked.good(arcs=asked.below(max(500 - asked.last, 0)))]),
             ("a circle of three", lambda asked: [asked.good(arcs=asked.below((asked.last + 1) % 3))]),
             ("names that grow", lambda asked: [asked.good(arcs=(*asked.arcs, 1))]),
             ("leaps", lambda asked: [asked.good(arcs=asked.below(asked.last + 2**20))])]
    return rows + [("walk: " + title, answers) for title, answers in walks]


ENDLESS = ("walk: values of 7 KB without end", lambda asked: [asked.good(value=tlv(4, b"v" * 7000))])


def flipped(data, seed):
    rng, data = random.Random(seed), bytearray(data)
    for _ in range(rng.randint(1, 6)):
        data[rng.randrange(len(data))] ^= 1 << rng.randrange(8)
    return bytes(data)


class Device:
    """Answers until close()."""

    def __init__(self, rows):
        self.rows = rows
        self.sockets = [socket.socket(socket.AF_INET, socket.SOCK_DGRAM) for _ in range(2)]
        for one in self.sockets:
            one.bind(("127.0.0.1", 0))
        self.port = self.sockets[0].getsockname()[1]
        self.is_open = True
        threading.Thread(target=self._serve, daemon=True).start()

    def _serve(self):
        own, other = self.sockets
        while True:
            datagram, peer = own.recvfrom(65_536)
            if not self.is_open:
                return
            try:
                asked = Asked(datagram)
            except (ValueError, IndexError):
                continue  # what the agent sends after a plan whose names do not fit a message
            if asked.case >= len(self.rows):
                continue
            title, answers = self.rows[asked.case]
            if "walk" not in title and asked.last > 2:
                answers = lambda asked: [asked.good(arcs=(1, 3, 7, 1))]  # the end of a walk
            for answer in answers(asked):
                try:
                    (other if isinstance(answer, list) else own).sendto(answer[0] if isinstance(answer, list) else answer, peer)
                except OSError:
                    pass  # more than a datagram holds

    def close(self):
        self.is_open = False
        self.sockets[1].sendto(b"", ("127.0.0.1", self.port))
