"""The hostile inputs of the long gate: tables made by hand, and what a seed makes of good ones. Each begins with its title;
`world` is the folder that holds the agent and what hostile names lead to."""

import json
import struct
import zlib

MARK = "kv_hostile_mark"  # what has this name was written or run because a name led out


def wide(value):
    return (value if isinstance(value, str) else json.dumps(value)).encode("utf-16-le", "surrogatepass")


def mutated(chance, good, count, *rest):
    """(title, a good one with flipped bits, cut, spliced, with a part repeated or left out, or a length changed, ...)."""
    for number in range(count):
        data, other = bytearray(chance.choice(good)), chance.choice(good)
        at, end = sorted((chance.randrange(len(data)), chance.randrange(len(data))))
        kind = chance.choice(("flip", "cut", "splice", "repeat", "leave out", "lie"))
        if kind == "flip":
            for _ in range(chance.randint(1, 8)):
                data[chance.randrange(len(data))] ^= 1 << chance.randrange(8)
        elif kind == "lie":
            lie = chance.choice((b"\0", b"\xff", b"\x7f", b"\x80", b"\0\0", b"\xff\xff", b"\xff\xff\xff\x7f", b"\0\0\0\x80"))
            data[at:at + len(lie)] = lie
        elif kind == "repeat":
            data[at:at] = data[at:end] * chance.randint(1, 20)
        else:
            data[at:end if kind == "leave out" else None] = other[chance.randrange(len(other)):] if kind == "splice" else b""
        yield f"{kind} {number}", bytes(data), *rest


class Member:
    """A member of a zip, of which everything may be a lie."""

    def __init__(self, name, data=b"hostile", method=8, flags=0, crc=None, size=None, packed=None, packed_size=None,
                 mode=0o644, extra=b"", offset=None, disk=0, local_name=None):
        self.name = name if isinstance(name, bytes) else name.encode("utf-8", "surrogatepass")
        deflate = zlib.compressobj(9, zlib.DEFLATED, -15)
        self.packed = packed if packed is not None else data if method != 8 else deflate.compress(data) + deflate.flush()
        self.middle = struct.pack("<HHHHHLLL", 20, flags, method, 0, 0x5821, zlib.crc32(data) if crc is None else crc,
                                  len(self.packed) if packed_size is None else packed_size,
                                  len(data) if size is None else size)
        self.local_name = local_name or self.name
        self.mode, self.extra, self.offset, self.disk = mode, extra, offset, disk

    def local(self):
        return b"".join((b"PK\3\4", self.middle, struct.pack("<HH", len(self.local_name), len(self.extra)), self.local_name,
                         self.extra, self.packed))

    def central(self, offset):
        return b"".join((b"PK\1\2", struct.pack("<H", 3 << 8 | 20), self.middle, struct.pack(
            "<HHHHHLL", len(self.name), len(self.extra), 0, self.disk, 0, self.mode << 16,
            offset if self.offset is None else self.offset), self.name, self.extra))


def archive(*members, count=None, start=None, size=None, disk=0, comment_size=0):
    """The bytes of a zip. A member with an offset has no header of its own there."""
    body, directory = bytearray(), bytearray()
    for member in members:
        directory += member.central(len(body))
        if member.offset is None:
            body += member.local()
    number = len(members) if count is None else count
    return bytes(body + directory + b"PK\5\6" + struct.pack("<HHHHLLH", disk, disk, number, number,
                                                            len(directory) if size is None
                                                            else size, len(body) if start is None else start, comment_size))


def zeros(name, megabytes):
    """A member of zeros, packed a thousandfold."""
    million, deflate, crc = bytes(1 << 20), zlib.compressobj(9, zlib.DEFLATED, -15), 0
    block = deflate.compress(million) + deflate.flush(zlib.Z_FULL_FLUSH)
    for _ in range(megabytes):
        crc = zlib.crc32(million, crc)
    return Member(name, crc=crc, size=megabytes << 20, packed=block * megabytes + b"\3\0")


def climbs(world):
    """Names that lead, or seem to lead, elsewhere."""
    ways = ("../../../", "..\\..\\..\\", "a/../../../../", ".//..//..//..//", "./.././../../", "....//....//....//",
            "..\\../..\\", "\\..\\..\\..\\", "//..//..//../", "..%2f..%2f", "../" * 12, "..\\" * 40, "\u2025/\u2025/",
            "..;/../", "/tmp/", "C:\\", "c:/", "C:", "\\\\127.0.0.1\\c$\\", "\\\\?\\C:\\", "file:///tmp/", "/proc/self/cwd/",
            "/dev/shm/", f"{world}/".replace("/", "\\"))
    return *(way + MARK for way in ways), f"{world}/etc/passwd", f"/{world}/etc/cron.d/job", "\\\\.\\PhysicalDrive0"


OWN_FILES = ("../queryconf.txt", "../../bin/agent.lock", "../../../state/registry.db", "..\\scripts\\id.sh",
             "../scripts/new.sh", "../backup/queryconf.txt", "../../bin/data/Agent_LONG1_1.txt", "RequestList.txt",
             "RequestList.txt/", "RequestList.txt.tmp/", "queryconf.zip", "queryconf.txt.refused/", "../../logs/agent.log")
ODD_NAMES = ("", ".", "..", "/", "\\", "\0", "a\0b", "queryconf.txt\0.sh", "CON", "NUL", "aux.txt", "COM1:", "a:stream", "a.",
             "a ", "*", "?", '"', "a" * 259, "a" * 260, "a" * 60_000, "d/" * 129, "d/" * 20_000 + "x", b"\xff\xfe\x80",
             b"\xed\xa0\x80", "line\nFORGED", "\x1b[2J", "\u202etxt.exe", "-rf", "~root", "$HOME", "--")


def archives(chance, world, new_plan):
    """(title, bytes, the plan that is in use afterwards; False: the same as before; None: either)."""
    rows = []

    def beside(title, *members, taken=True):
        content = new_plan()
        rows.append((title, archive(*members, Member("queryconf.txt", content)), taken and content))

    def alone(title, taken=False, **lies):
        content = new_plan()
        rows.append((title, archive(Member("queryconf.txt", content, **lies)), taken and content))

    for name in (*climbs(world), *OWN_FILES, *ODD_NAMES):
        beside(f"a member {name[:60]!r}", Member(name, b"" if name[-1:] == "/" else b"#!/bin/sh\n", mode=0o4755))
    for target in ("../../..", f"{world}", "/", "../scripts", "../queryconf.txt", "."):
        beside(f"a link to {target}", Member("link", target.encode(), mode=0o120777), Member(f"link/{MARK}"),
               Member("link/scripts/new.sh"), Member("link", b"again"))
    beside("one gigabyte of zeros", zeros("zeros", 1024))
    beside("three times 200 MB", *[zeros(f"zeros{number}", 200) for number in range(3)])
    nested, shared = archive(zeros("zeros", 64)), zeros("zeros0", 64)
    for _ in range(6):
        nested = archive(*[Member(f"{number}.zip", nested) for number in range(4)])
    beside("zips in zips, six deep", Member("nested.zip", nested))
    beside("a thousand members share one", shared, *[Member(f"zeros{number}", packed=shared.packed, size=64 << 20, offset=0)
                                                    for number in range(1000)], taken=False)
    beside("30,000 members", *[Member(f"{number}.txt", b"") for number in range(30_000)])
    beside("2,000 climbing members", *[Member(f"../{number}{MARK}") for number in range(2000)], taken=False)
    beside("1,000 folders, each in the last", *[Member("d/" * (number % 120) + f"{number}/", b"") for number in range(1000)])
    other, another = new_plan(), new_plan()
    good = Member("queryconf.txt", other)
    rows += [("a link as the plan", archive(Member("queryconf.txt", f"{world}/etc/plan".encode(), mode=0o120777)), False),
             ("one gigabyte of zeros as the plan", archive(zeros("queryconf.txt", 1024)), False),
             ("400 MB of zeros as the plan", archive(zeros("queryconf.txt", 400)), False),
             ("the plan twice", archive(Member("queryconf.txt", new_plan()), good), other),
             ("the plan, then a folder of its name", archive(good, Member("queryconf.txt/", b"")), None),
             ("the plan, then a member below it", archive(good, Member("queryconf.txt/x")), None),
             ("the plan in other letters", archive(Member("QueryConf.TXT", another)), another)]
    zip64 = struct.pack("<HHQQ", 1, 16, 1 << 62, 1 << 62)
    for lies in ({"size": 10}, {"size": 0xffffffff}, {"size": 0}, {"packed_size": 0}, {"packed_size": 0xffffffff},
                 {"packed_size": 100_000}, {"crc": 1}, {"flags": 1}, {"flags": 0x41}, {"method": 12}, {"method": 14},
                 {"method": 99}, {"packed": b"\xff" * 99}, {"packed": b"\0" * 99}, {"packed": b""}, {"offset": 0x7fffffff},
                 {"offset": 60}, {"local_name": b"../" + MARK.encode()},
                 {"size": 0xffffffff, "packed_size": 0xffffffff, "extra": zip64}):
        alone(f"a plan with {lies}", **lies)
    for lies in ({"disk": 7}, {"extra": b"UT\xff\xff\7"}, {"flags": 0x20}, {"flags": 8}):
        alone(f"a plan with {lies}", None, **lies)
    alone("a setuid plan", True, mode=0o4777)
    whole = archive(good)
    rows += [(f"an archive with {lies}", archive(good, **lies), None) for lies in
             ({"count": 65_535}, {"count": 0}, {"disk": 3}, {"comment_size": 9}, {"start": 0xffffffff, "count": 0xffff})]
    rows += [(title, content, False) for title, content in (
        ("nothing", b""), ("text", b"<html>no</html>"), ("an end alone", archive()), ("cut in the plan", whole[:60]),
        ("cut in the directory", whole[:-30]), ("a directory far away", archive(good, start=0xfffffff0)),
        ("a directory of 4 GB", archive(good, size=0xffffffff)))]
    rows += [("junk ahead", b"MZ" * 999 + whole, None), ("junk behind", whole + bytes(99_000), None),
             ("two ends", whole + archive(), None)]
    base = [archive(Member("a.sh", b"#!/bin/sh\n" * 9), Member("sub/b", b"b" * 5000), Member("queryconf.txt", new_plan()),
                    Member("../" + MARK, method=0)) for _ in range(4)]
    return rows + list(mutated(chance, base, 60, None))


def flow(*records, **members):
    """A workflow."""
    return {"wfname": "w", "interval": 1, "recordSetName": list(records), **members}


def plans(chance, world, device_port):
    """(title, bytes of a plan, whether it is taken; None: either)."""
    run = {"script": "id.sh", "Name": "N", "response_needed": "true"}
    wmi = {"Name": "R", "wmiQuery": "SELECT Name FROM Win32_OperatingSystem"}
    snmp = {"PROTOCOL": "SPOLL", "OID": ".1.3.6.1.4.1.99999.0.0", "DEVICE_NAME": "127.0.0.1", "SNMP_VERSION": "v2c",
            "COMMUNITY": "public", "SNMP_PORT": str(device_port), "POLL_ID": "p"}
    tool = "opt/other/tool"
    hostile = (  # a good record, and members that are not
        (run, "script", (f"{world}/{tool}", f"../../../../../../{tool}", f"../../../../../../{tool}".replace("/", "\\"),
                         "../scripts/id.sh", f"id.sh; touch {world}/{MARK}", "", ".", "..", "a" * 5000, "C:\\tool.sh",
                         "id.sh\0", "\\\\x\\id.sh", "id.sh ", "sh -c id", "//../id.sh", 7, None, True, [], {}, ["id.sh"])),
        (run, "params", (f"; touch {world}/{MARK}", f"$(touch {world}/{MARK})", f"`touch {world}/{MARK}`",
                         f"| tee {world}/{MARK}", f"> {world}/{MARK}", f"&& {world}/{tool}", f"\n{world}/{tool}", '"', "'",
                         "\\", "%s%n", "a " * 60_000, "x" * 1_000_000, "\0", "*", "~", "\ud800", 7, [])),
        (run, "Name", ("", "ERRORMSG", '"}', "\n", "n" * 90_000, 7, [])),
        (wmi, "Name", ("", "AGENTKEY", '"}', "\n", "n" * 500_000, 7)),
        (wmi, "wmiQuery", ("", "SELECT", "SELECT * FROM " + "A" * 500_000, "SELECT * FROM Win32_Process WHERE " + "(" * 50_000,
                           "\0", "SELECT * FROM Win32_Process WHERE " + "NOT " * 50_000 + "Name='a'",
                           "SELECT * FROM CIM_DataFile", "'; DROP", "SELECT " + "Name," * 50_000 + "Name FROM Win32_Process",
                           "SELECT * FROM Win32_Process WHERE Name LIKE '" + "%a" * 2000 + "'")),
        (wmi, "nameSpace", ("..\\..\\x", "n" * 99_999, 1)),
        (snmp, "DEVICE_NAME", ("", " ", "a" * 10_000, "127.0.0.1;x", "\0", 7, "a b")),
        (snmp, "SNMP_PORT", ("-1", "0", "99999999999", "1x", 161)),
        (snmp, "COMMUNITY", ("", "c" * 100_000, "\0", [], "\ud800")),
        (snmp, "OID", ("", ".", ",,,,", "1." * 50_000, ".1.4294967296", ".-1.3", ",".join([snmp["OID"]] * 5000), "\xe9", 7)),
        (snmp, "SNMP_VERSION", ("v9", "", 3)), (snmp, "PROTOCOL", ("", 1, "x" * 70_000)),
        (snmp, "POLL_ID", ("\n", "STATUS", {})),
        (snmp, "AGENT_KEY", ("../../" + MARK, "LONG1\n")))
    rows = [(f"{member} is {str(value)[:40]!r}", [flow({**record, member: value})], None)
            for record, member, values in hostile for value in values]
    rows += [(f"interval {value!r}", [flow(wmi, interval=value)], None) for value in
             ("1", 0, -1, 1.5, 1e308, 2**31, 2**32, 2**63, 2**64 + 1, -2**63, True, None, [], {})]
    rows += [("records are not a list", [flow(recordSetName=value) for value in (None, 1, "x", {}, [1], [None], [[]], [{}])],
              None),
             ("workflows are not objects", [1, "x", None, [], [[]], True], False),
             ("10,000 workflows", [flow()] * 10_000, True), ("200 workflows of one script", [flow(run)] * 200, True),
             ("100,000 records", [flow(*[{"a": "b"}] * 100_000)], None),
             ("a name of 1 MB", [flow(wfname="w" * 1_000_000)], None),
             ("members are objects", [flow({name: {} for name in (*snmp, *wmi)})], None)]
    rows = [(title, wide({"WorkFlows": workflows}), taken) for title, workflows, taken in rows]
    good = json.dumps({"WorkFlows": [flow(wmi)]})
    rows += [(f"plan: {title}", content, False) for title, content in (
        ("nothing", b""), ("a zero", b"\0"), ("half a character", b"{"), ("brackets", wide("[" * 100_000)),
        ("null", wide("null")), ("objects", wide('{"a":' * 50_000)), ("a list", wide("[]")), ("a number", wide("1")),
        ("a text", wide('"x"')), ("cut", wide(good)[:-9]), ("another key", wide('{"WorkFlow": []}')),
        ("another kind", wide('{"WorkFlows": {}}')), ("lone surrogates", b"\0\xd8" * 999),
        ("20 MB of blanks", wide(" " * 10_000_000)), ("a million commas", wide('{"WorkFlows": [' + "1," * 1_300_000 + "1]}")),
        ("300,000 objects", wide('{"WorkFlows": [' + "{}," * 300_000 + "{}]}")), ("an image", b"\x89PNG\r\n\x1a\n" * 99))]
    rows += [("UTF-8", good.encode(), True), ("UTF-8 with a mark", b"\xef\xbb\xbf" + good.encode(), None),
             ("a mark", b"\xff\xfe" + wide(good), True), ("an odd length", wide(good) + b"\n", None),
             ("the other byte order", b"\xfe\xff" + good.encode("utf-16-be"), None),
             ("junk behind", wide(good + "]]]"), None), ("zeros behind", wide(good) + bytes(5000), None),
             ("20,000 members", wide("{" + "".join(f'"m{number}": 1, ' for number in range(20_000)) + good[1:]), None),
             ("the key twice", wide(good[:-1] + ', "WorkFlows": []}'), None),
             ("escapes", wide(good.replace("w", "\\u0077\\ud800\\u0000")), None)]
    return rows + list(mutated(chance, [wide(good), rows[0][1], wide({"WorkFlows": [flow(snmp), flow(wmi)]})], 50, None))


def lists(chance, world, other_port, offer):
    """(title, bytes of a list of requests). `offer` gives the path under which an archive can be downloaded."""
    download = {"REQUEST_TYPE": "DOWNLOAD_QUERYCONF", "AGENT_KEY": "LONG1", "AGENT_REQUEST_ID": "9", "DOWNLOAD_URL": "none"}
    delete = {"REQUEST_TYPE": "DELETE_DEVICE", "DEVICE_NAME": "S9", "AGENT_REQUEST_ID": "8"}
    discover = {"REQUEST_TYPE": "DISCOVER_SNMP_DEVICES", "DEVICE_NAME": "127.0.0.1", "SNMP_PORT": "1", "SNMP_TIMEOUT": "1"}
    test = {"REQUEST_TYPE": "TEST_MONITOR", "MONITOR_NAME": "M", "RESPONSE_NEEDED": "YES",
            "WMIQUERY": "SELECT * FROM Win32_Service"}
    start = {"REQUEST_TYPE": "START_SERVICE", "MONITOR_NAME": "M", "RESPONSE_NEEDED": "YES"}
    services = ("", "../../x", f"x; touch {world}/{MARK}", "s" * 70_000, "\0")
    keys = (*climbs(world), "../../../..", "..\\..\\..\\..", "../../../../agent2/monitoring/conf", "..", ".", "", "k" * 5000,
            "S9\0x", "queryconf.txt", "S9.", 7, None, {})
    hostile = (
        (download, "DOWNLOAD_URL", (f"file://{world}/etc/plan.zip", "../../etc/plan.zip", f"//127.0.0.1:{other_port}/x",
                                    f"http://127.0.0.1:{other_port}/x", f"@127.0.0.1:{other_port}/x", f":{other_port}/x",
                                    f"\\\\127.0.0.1:{other_port}\\x", f"#@127.0.0.1:{other_port}/", "gopher://x",
                                    "x" * 500_000, "%00", "\r\nHost: x\r\n\r\nGET /", "?" * 9999, "", "\0", " ", "\ud800", 7,
                                    [], None)),
        (delete, "DEVICE_NAME", keys), (start, "SERVICE_NAME", services),
        ({**start, "REQUEST_TYPE": "STOP_SERVICE"}, "SERVICE_NAME", services),
        (test, "MONITOR_NAME", ("ERRORMSG", "", "\n", 7)),
        (test, "AGENT_REQUEST_ID", ("", "\n", "5&moId=x", "i" * 200_000, "\0", 7, [], "NONE", "\ud800", "\xe9 ")),
        (test, "REQUEST_TYPE", ("", "x" * 99_999, "test_monitor", 1, None, {})),
        (discover, "DEVICE_NAME", ("", "n" * 99_999, None)), (discover, "SNMP_PORT", ("-1", 1)),
        (discover, "SNMP_TIMEOUT", ("99999999999", "x")), (discover, "COMMUNITY", ("c" * 99_999,)))
    rows = [(f"{request['REQUEST_TYPE']}, {member} {str(value)[:40]!r}", [{**request, member: value}])
            for request, member, values in hostile for value in values]
    for key in keys:
        path = offer(archive(Member("queryconf.txt", wide({f"WorkFlows_{key}": [flow()]}))))
        rows.append((f"a plan of {str(key)[:40]!r}", [{**download, "AGENT_KEY": key, "DOWNLOAD_URL": path}]))
    rows += [("elements are not objects", [1, None, "x", [], [[]], True]), ("5,000 requests", [{"REQUEST_TYPE": "x"}] * 5000),
             ("200 deletions", [delete] * 200), ("100 downloads of nothing", [download] * 100),
             ("a request of 20,000 members", [{f"m{number}": "v" for number in range(20_000)}])]
    rows = [(title, wide({"RequestList": requests})) for title, requests in rows]
    good = json.dumps({"RequestList": [test, delete]})
    rows += [("text", b"<html>"), ("one byte", b"x"), ("cut", wide(good)[:-8]), ("brackets", wide("[" * 100_000)),
             ("a list", wide("[]")), ("objects", wide('{"a":' * 50_000)), ("a number", wide("1")),
             ("no list", wide('{"RequestList": {}}')), ("no key", wide("{}")), ("UTF-8", good.encode()),
             ("the other byte order", good.encode("utf-16-be")), ("an odd length", wide(good) + b"x"), ("zeros", bytes(4096)),
             ("zeros behind", wide(good) + bytes(99)), ("20 MB of blanks", wide(" " * 10_000_000)),
             ("60 MB", b"[\0" * 30_000_000), ("70 MB", b"[\0" * 35_000_000), ("lone surrogates", b"\0\xd8" * 999),
             ("lines of the log", wide("\r\n2026 FORGED\r\n" * 99))]
    return rows + list(mutated(chance, [rows[0][1], rows[30][1], wide(good)], 40))


def answers(chance, own_port):
    """(title, parts): what a server sends, until it is hung up on."""
    def head(*fields, status="200 OK"):
        return "".join((f"HTTP/1.1 {status}\r\n", *[field + "\r\n" for field in fields], "\r\n")).encode("latin-1")

    start, block = b"HTTP/1.1 200 OK\r\n", b"[\0" * 32_768
    rows = [("headers without end", [start, *[b"A: " + b"b" * 8000 + b"\r\n"] * 2000]),
            ("a header without end", [start + b"A: ", *[block] * 200]),
            ("a status without end", [b"HTTP/1.1 200 ", *[block] * 200]),
            ("200,000 headers", [start, *[b"A: b\r\n" * 1000] * 200]), ("a body of 150 MB", [head(), *[block] * 2300]),
            ("10,000 interim answers", [b"HTTP/1.1 100 Continue\r\n\r\n" * 10_000, head()]),
            ("chunks without end", [head("Transfer-Encoding: chunked"), *[b"10000\r\n" + block + b"\r\n"] * 2300]),
            ("a bomb of gzip", [head("Content-Encoding: gzip"), zlib.compress(bytes(50 << 20), 9, 31)])]
    rows += [(f"Content-Length {value!r}", [head(f"Content-Length: {value}"), b"x" * 50]) for value in
             ("-1", "+5", "0x10", "99999999999999999999", "9223372036854775807", "5, 6", "", "5\r\nContent-Length: 6", "1e9",
              "5 5")]
    rows += [(f"chunk {value[:20]!r}", [head("Transfer-Encoding: chunked"), value]) for value in
             (b"-1\r\nx", b"ffffffffffffffffff\r\nx", b"0", b"5;" + b"e" * 99_999 + b"\r\nabcde\r\n0\r\n\r\n", b"zz\r\n",
              b"5\r\nabcdefgh\r\n", b"\r\n\r\n", b"0\r\n" + b"T: t\r\n" * 9999 + b"\r\n")]
    targets = ("file:///etc/passwd", f"http://127.0.0.1:{own_port}/loop", "/loop", "", "//", "ftp://127.0.0.1/",
               "gopher://127.0.0.1/", "dict://127.0.0.1:1/", "http://127.0.0.1:1/", "http://[::", "http://" + "a" * 99_999,
               "\x01", "data:,x", "http://127.0.0.1:99999/", "../" * 999)
    rows += [(f"redirect {status} to {value[:30]!r}", [head(f"Location: {value}", "Content-Length: 0", status=f"{status} X")])
             for status, value in zip((301, 302, 303, 307, 308) * 3, targets)]
    rows += [(f"answer {value[:30]!r}", [value]) for value in (
        b"", bytes(999), b"HTTP/1.1", b"HTTP/9.9 200 OK\r\n\r\n", b"HTTP/1.1 20 OK\r\n\r\n", b"HTTP/1.1 2000 OK\r\n\r\n",
        b"HTTP/0.9\r\n", b"HTTP/1.1 -200 OK\r\n\r\n", b"ICY 200 OK\r\n\r\n", b"HTTP/2 200\r\n\r\n",
        b"HTTP/1.1 101 Switching\r\nUpgrade: h2c\r\n\r\n", start, b"\r\n\r\n" + start + b"\r\n", start + b" folded\r\n\r\n",
        start + b"no colon\r\n: x\r\n\r\n", b"\x16\x03\x01\x02\0\x01\0", b"SSH-2.0-x\r\n",
        b"HTTP/1.1 401 X\r\nWWW-Authenticate: Negotiate\r\n\r\n", b"HTTP/1.1 407 X\r\nProxy-Authenticate: Basic\r\n\r\n",
        b"HTTP/1.1 204 No\r\nContent-Length: 9\r\n\r\n", start + b"Set-Cookie: " + b"c" * 99_999 + b"\r\n\r\n",
        start + b"Content-Length: 5\r\nTransfer-Encoding: chunked\r\n\r\n0\r\n\r\n")]
    base = [head("Content-Length: 24", "Connection: close") + wide('{ "A": [ ] }'), head("Location: /loop", status="307 X"),
            head("Transfer-Encoding: chunked", "timeDiff: 0") + b"6\r\n{\0}\0\0\0\r\n0\r\n\r\n"]
    return rows + [(title, [content]) for title, content in mutated(chance, base, 30)]


def registrations():
    """(title, parts): answers to a registration. None of their keys may be taken."""
    numbers = ("-1", "abc", "", "1e9", "2147483648", "-2147483649", "0x10", "5 ; x", "\x01", "9" * 100_000)
    hostile = {"timeDiff": numbers, "SNMPTimeout": numbers, "AgentRun": ("2", "-1", "", "yes", "\x01", "1" * 9999),
               "AgentKey": ("../../" + MARK, "..", ".", "", "k" * 65, "k" * 100_000, "a/b", "a\\b", "C:x", "a&b=c", "a%2fb",
                            "\x01", "\x7f", "\xe9", '"', "*", "a\0b")}
    good = {"AgentKey": "LONG1", "timeDiff": "0", "AgentRun": "1"}
    return [(f"{name} {value[:20]!r}", ["".join(("HTTP/1.1 200 OK\r\n", *[f"{field}: {text}\r\n" for field, text in
                                                 {**good, name: value}.items()], "\r\n")).encode()])
            for name, values in hostile.items() for value in values]
