"""A device of the long gate that answers to SNMP, well or as nobody honest does. In what it is asked two arcs behind ROOT are
the number of a case."""

import contextlib
import socket
import threading

from hostile_inputs import mutated

ROOT = b"\x2b\6\1\4\1\x86\x8d\x1f"  # 1.3.6.1.4.1.99999


def oid(case):
    return f".1.3.6.1.4.1.99999.{case // 100}.{case % 100}"


def tlv(tag, content):
    size = len(content)
    return bytes([tag]) + (bytes([size]) if size < 128 else b"\x82" + size.to_bytes(2, "big")) + content


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
    """A request, and answers to it. `step` is how far a walk has come: its last three arcs."""

    def __init__(self, datagram):
        self.version, self.community, pdu = parts(parts(datagram)[0])
        self.number, _, _, bindings = parts(pdu)
        self.name = parts(parts(bindings)[0])[0]
        _, high, low, *arcs = self.name[len(ROOT) - 1:]
        self.case, self.step = 100 * high + low, sum(arc << 7 * place for place, arc in enumerate(reversed(arcs[-3:])))

    def good(self, value=tlv(4, b"value"), step=None, more=b"", copies=1):
        """An answer with this value and step, by default the next one."""
        step = self.step + 1 if step is None else step
        name = self.name[:len(ROOT) + 2] + bytes(step >> shift & 127 for shift in (14, 7, 0)) + more
        pdu = tlv(2, self.number) + tlv(2, b"\0") * 2 + tlv(0x30, tlv(0x30, tlv(6, name) + value) * copies)
        return tlv(0x30, tlv(2, self.version) + tlv(4, self.community) + tlv(0xA2, pdu))


HONEST = ("values", lambda asked: [asked.good()])


def cases(chance):
    """(title, answers), of which the second gives the datagrams to what was asked."""
    rows = [("no answer", lambda asked: []), ("400 values", lambda asked: [asked.good(copies=400)]),
            ("50 answers", lambda asked: [asked.good()] * 50), ("200 of zeros", lambda asked: [bytes(1400)] * 200),
            ("walk: without end", lambda asked: [asked.good()]), ("walk: the same name", lambda asked: [asked.good(step=5)]),
            ("walk: names that fall", lambda asked: [asked.good(step=max(500 - asked.step, 0))]),
            ("walk: a circle of three", lambda asked: [asked.good(step=(asked.step + 1) % 3)]),
            ("walk: names that grow", lambda asked: [asked.good(step=7, more=asked.name[len(ROOT) + 5:] + b"\1")]),
            ("walk: leaps", lambda asked: [asked.good(step=asked.step + 2**14)])]
    rows += [(f"a value {tag:x} of {content[:9]!r}", lambda asked, value=tlv(tag, content): [asked.good(value)])
             for tag in (0x40, 0x41, 0x46, 2, 4, 5, 6, 0x44, 0x30)
             for content in (b"", b"\xff" * 9, b"\x2b" * 900, b"\n2026 FORGED", b'"}]', b"\x9f\x78\4\x7f\xc0\0\0", b"v" * 7000)]
    rows += [(f"{byte} at {at}", lambda asked, at=at, byte=byte: [asked.good()[:at] + byte + asked.good()[at + 1:]])
             for at in range(54) for byte in (b"\0", b"\x7f", b"\x84")]
    rows += [(f"the first {size} bytes", lambda asked, size=size: [asked.good()[:size]]) for size in range(1, 54, 4)]
    return rows + [(f"mutant {seed}", lambda asked, seed=seed: [next(mutated(seed, [asked.good()], 1))[1]])
                   for seed in chance.sample(range(10**6), 60)]


class Device:
    """Answers on a port of its own."""

    def __init__(self, rows):
        self.rows = rows
        self.socket = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
        self.socket.bind(("127.0.0.1", 0))
        self.port = self.socket.getsockname()[1]
        threading.Thread(target=self._serve, daemon=True).start()

    def _serve(self):
        while True:
            datagram, peer = self.socket.recvfrom(65_536)
            # The agent may ask for what fits no message, and an answer may fit no datagram.
            with contextlib.suppress(ValueError, IndexError, OSError):
                asked = Asked(datagram)
                title, answers = self.rows[asked.case]
                # A walk that does not mean to go on comes to its end.
                ends = "walk" not in title and asked.step > 2
                for sent in [tlv(0x30, b"")] if ends else answers(asked):
                    self.socket.sendto(sent, peer)
