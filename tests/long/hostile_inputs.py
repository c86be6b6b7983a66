"""The hostile inputs of the long gate: tables made by hand, and what a seed makes of good ones. An input is a tuple that
begins with its title. `climbs` below are names of files that a careful reader of names does not follow."""

import json
import random
import struct
import zlib

MARK = "kv_hostile_mark"   # whatever has this name was written or run by a name that led out
GIGABYTE = 1 << 30


def wide(value):
    return (value if isinstance(value, str) else json.dumps(value)).encode("utf-16-le", "surrogatepass")


def mutated(rng, data, other):
    """`data` with flipped bits, cut, spliced with `other`, with a part repeated or left out, or with a length changed."""
    data = bytearray(data)
    at, end = sorted((rng.randrange(len(data)), rng.randrange(len(data))))
    kind = rng.randrange(6)
    if kind == 0:
        for _ in range(rng.randint(1, 8)):
            data[rng.randrange(len(data))] ^= 1 << rng.randrange(8)
    elif kind == 1:
        del data[at:]
    elif kind == 2:
        data[at:] = other[rng.randrange(len(other)):]
    elif kind == 3:
        data[at:at] = data[at:end] * rng.randint(1, 20)
    elif kind == 4:
        del data[at:end]
    else:
        lie = rng.choice((b"\0", b"\xff", b"\x7f", b"\x80", b"\0\0", b"\xff\xff", b"\xff\xff\xff\x7f", b"\0\0\0\x80"))
        data[at:at + len(lie)] = lie
    return bytes(data)


# --- archives ---------------------------------------------------------------------------------------------------------

class Member:
    """A member of a zip, of which everything may be a lie."""

    def __init__(self, name, data=b"hostile", method=8, flags=0, crc=None, size=None, packed=None, packed_size=None,
                 mode=0o644, extra=b"", offset=None, disk=0, local_name=None):
        self.name = name if isinstance(name, bytes) else name.encode("utf-8", "surrogatepass")
        self.local_name = self.name if local_name is None else local_name
        deflate = zlib.compressobj(9, zlib.DEFLATED, -15)
        self.packed = packed if packed is not None else data if method != 8 else deflate.compress(data) + deflate.flush()
        self.middle = struct.pack("<HHHHHLLL", 20, flags, method, 0, 0x5821, zlib.crc32(data) if crc is None else crc,
                                  len(self.packed) if packed_size is None else packed_size,
                                  len(data) if size is None else size)
        self.mode, self.extra, self.offset, self.disk = mode, extra, offset, disk

    def local(self):
        return (b"PK\3\4" + self.middle + struct.pack("<HH", len(self.local_name), len(self.extra)) + self.local_name +
                self.extra + self.packed)

    def central(self, offset):
        return (b"PK\1\2" + struct.pack("<H", 3 << 8 | 20) + self.middle +
                struct.pack("<HHHHHLL", len(self.name), len(self.extra), 0, self.disk, 0, self.mode << 16,
                            offset if self.offset is None else self.offset) + self.name + self.extra)


def archive(*members, count=None, start=None, size=None, disk=0, comment=b"", comment_size=None):
    body = central = b""
    locals_, centrals, offset = [], [], 0
    for member in members:
        centrals.append(member.central(offset))
        if member.offset is None:
            locals_.append(member.local())
            offset += len(locals_[-1])
    body, central = b"".join(locals_), b"".join(centrals)
    number = len(members) & 0xffff if count is None else count
    return body + central + b"PK\5\6" + struct.pack(
        "<HHHHLLH", disk, disk, number, number, len(central) if size is None else size,
        offset if start is None else start, len(comment) if comment_size is None else comment_size) + comment


def zeros(name, size):
    """A member of so many zeros, packed a thousandfold."""
    million = bytes(1 << 20)
    deflate = zlib.compressobj(9, zlib.DEFLATED, -15)
    block = deflate.compress(million) + deflate.flush(zlib.Z_FULL_FLUSH)
    crc = 0
    for _ in range(size >> 20):
        crc = zlib.crc32(million, crc)
    return Member(name, crc=crc, size=size, packed=block * (size >> 20) + b"\3\0")


def climbs(world):
    """Names that lead, or seem to lead, elsewhere."""
    up = ("../../../", "..\\..\\..\\", "a/../../../../", ".//..//..//..//", "./.././../../", "....//....//....//",
          "..\\../..\\", "\\..\\..\\..\\", "//..//..//../", "..%2f..%2f", "../" * 12, "..\\" * 40, "\u2025/\u2025/", "..;/../")
    absolute = (f"{world}/etc/passwd", f"/{world}/etc/cron.d/job", f"{world}/".replace("/", "\\") + MARK, f"/tmp/{MARK}",
                f"C:\\{MARK}", f"c:/{MARK}", f"C:{MARK}", f"\\\\127.0.0.1\\c$\\{MARK}", f"\\\\?\\C:\\{MARK}",
                f"\\\\.\\PhysicalDrive0", f"file:///tmp/{MARK}", f"/proc/self/cwd/{MARK}", "/dev/shm/" + MARK)
    return [way + MARK for way in up] + list(absolute)


OWN_FILES = ("../queryconf.txt", "../../bin/agent.lock", "../../../state/registry.db", "..\\scripts\\id.sh",
             "../scripts/new.sh", "../backup/queryconf.txt", "../../bin/data/Agent_LONG1_1.txt", "RequestList.txt",
             "RequestList.txt/", "RequestList.txt.tmp/", "queryconf.zip", "queryconf.txt.refused/", "../../logs/agent.log")
ODD_NAMES = ("", ".", "..", "/", "\\", "\0", "a\0b", "queryconf.txt\0.sh", "CON", "NUL", "aux.txt", "COM1:", "a:stream", "a.",
             "a ", "*", "?", '"', "a" * 259, "a" * 260, "a" * 60_000, "d/" * 129, "d/" * 20_000 + "x", b"\xff\xfe\x80",
             b"\xed\xa0\x80", "line\nFORGED", "\x1b[2J", "\u202etxt.exe", "-rf", "~root", "$HOME", "--")


def archives(rng, world, plans):
    """(title, bytes of a zip, the plan that is in use afterwards; False: the same as before; None: either)."""
    rows = []

    def beside(title, *members, taken=True):
        content = plans()
        rows.append((title, archive(*members, Member("queryconf.txt", content)), content if taken is True else taken))

    def alone(title, expected=False, **lies):
        content = plans()
        rows.append((title, archive(Member("queryconf.txt", content, **lies)), content if expected else expected))

    for name in (*climbs(world), *OWN_FILES, *ODD_NAMES):
        if len(name) < 65_536:
            beside(f"a member named {name[:60]!r}", Member(name, b"" if name[-1:] == "/" else b"#!/bin/sh\ntouch " +
                                                          f"{world}/{MARK}\n".encode(), mode=0o4755))
    for target in ("../../..", f"{world}", "/", "../scripts", "../queryconf.txt", "."):
        beside(f"a link to {target}", Member("link", target.encode(), mode=0o120777), Member(f"link/{MARK}"),
               Member("link/scripts/new.sh"), Member("link", b"again"))
    content = plans()
    rows += [("the plan is a link", archive(Member("queryconf.txt", f"{world}/etc/plan".encode(), mode=0o120777)), False),
             ("one gigabyte of zeros", archive(zeros("queryconf.txt", GIGABYTE)), False),
             ("400 MB of zeros as the plan", archive(zeros("queryconf.txt", 400 << 20)), False)]
    beside("one gigabyte of zeros beside the plan", zeros("zeros", GIGABYTE))
    beside("three times 200 MB", *[zeros(f"zeros{number}", 200 << 20) for number in range(3)])
    nested = archive(zeros("zeros", 64 << 20))
    for _ in range(6):
        nested = archive(*[Member(f"{number}.zip", nested) for number in range(4)])
    beside("zips in zips, six deep", Member("nested.zip", nested))
    quilt = zeros("zeros0", 64 << 20)
    beside("a thousand members share one", quilt, *[Member(f"zeros{number}", packed=quilt.packed, size=64 << 20, offset=0)
                                                    for number in range(1000)], taken=False)
    beside("30,000 members", *[Member(f"{number}.txt", b"") for number in range(30_000)])
    beside("2,000 climbing members", *[Member(f"../{number}{MARK}") for number in range(2000)], taken=False)
    beside("1,000 folders, each in the last", *[Member("d/" * (number % 120) + f"{number}/", b"") for number in range(1000)])
    good = Member("queryconf.txt", content)
    rows += [("the plan twice", archive(Member("queryconf.txt", plans()), good), content),
             ("the plan, then a folder of its name", archive(good, Member("queryconf.txt/", b"")), None),
             ("the plan, then a member below it", archive(good, Member("queryconf.txt/x")), None),
             ("the plan in other letters", archive(Member("QueryConf.TXT", other := plans())), other)]
    for title, lies in (("size too small", {"size": 10}), ("size of 4 GB", {"size": 0xffffffff}), ("size 0", {"size": 0}),
                        ("packed size 0", {"packed_size": 0}), ("packed size of 4 GB", {"packed_size": 0xffffffff}),
                        ("packed size beyond the end", {"packed_size": 100_000}), ("wrong CRC", {"crc": 1}),
                        ("encrypted", {"flags": 1}), ("encrypted strongly", {"flags": 0x41}),
                        ("patched", {"flags": 0x20}), ("method 12", {"method": 12}), ("method 14", {"method": 14}),
                        ("method 99", {"method": 99}), ("damaged stream", {"packed": b"\xff" * 99}),
                        ("stream without end", {"packed": b"\0" * 99}), ("empty stream", {"packed": b""}),
                        ("offset beyond the end", {"offset": 0x7fffffff}), ("offset of the directory", {"offset": 60}),
                        ("on another disk", {"disk": 7}), ("another name in front", {"local_name": b"../" + MARK.encode()}),
                        ("zip64 sizes", {"size": 0xffffffff, "packed_size": 0xffffffff,
                                         "extra": struct.pack("<HHQQ", 1, 16, 1 << 62, 1 << 62)}),
                        ("extra field beyond its end", {"extra": b"UT\xff\xff\7"})):
        alone(title, None if title in ("patched", "on another disk", "extra field beyond its end") else False, **lies)
    alone("a setuid plan", True, mode=0o4777)
    alone("sizes behind the member", None, flags=8)
    whole = archive(good)
    rows += [("nothing", b"", False), ("text", b"<html>no</html>", False), ("an end alone", archive(), False),
             ("a count of 65,535", archive(good, count=65_535), None), ("a count of 0", archive(good, count=0), None),
             ("a directory far away", archive(good, start=0xfffffff0), False), ("zip64 end", archive(good, start=0xffffffff,
                                                                                                    count=0xffff), None),
             ("a directory of 4 GB", archive(good, size=0xffffffff), False), ("spanned", archive(good, disk=3), None),
             ("a comment beyond the end", archive(good, comment_size=9), None), ("junk ahead", b"MZ" * 999 + whole, None),
             ("junk behind", whole + b"\0" * 99_000, None), ("cut in the plan", whole[:60], False),
             ("cut in the directory", whole[:-30], False), ("the end twice", whole + archive(), None)]
    base = [archive(Member("a.sh", b"#!/bin/sh\n" * 9), Member("sub/b", b"b" * 5000), Member("queryconf.txt", plans()),
                    Member("../" + MARK, method=0)) for _ in range(4)]
    rows += [(f"mutation {number}", mutated(rng, rng.choice(base), rng.choice(base)), None) for number in range(60)]
    return rows


# --- plans ------------------------------------------------------------------------------------------------------------

def workflow_of(record=None, **members):
    return {"wfname": "w", "interval": 1, "recordSetName": [] if record is None else [record], **members}


def plans(rng, world, device_port):
    """(title, bytes of a plan, whether it may be taken; None: either)."""
    def one(title, *workflows, taken=None):
        return title, wide({"WorkFlows": list(workflows)}), taken

    shell = [f"; touch {world}/{MARK}", f"$(touch {world}/{MARK})", f"`touch {world}/{MARK}`", f"| tee {world}/{MARK}",
             f"> {world}/{MARK}", f"&& {world}/opt/other/tool", f"\n{world}/opt/other/tool", '"', "'", "\\", "%s%n", "a " * 60_000,
             "x" * 1_000_000, "\0", "*", "~", "\ud800"]
    scripts = [f"{world}/opt/other/tool", "../../../../../other/tool", "..\\..\\..\\..\\..\\other\\tool", "../scripts/id.sh",
               f"id.sh; touch {world}/{MARK}", "", ".", "..", "a" * 5000, "C:\\tool.sh", "id.sh\0", "\\\\x\\id.sh", "id.sh ", "sh -c id",
               "//../id.sh", 7, None, True, [], {}, ["id.sh"]]
    snmp = {"PROTOCOL": "SPOLL", "OID": ".1.3.6.1.4.1.99999.0.0", "DEVICE_NAME": "127.0.0.1", "SNMP_VERSION": "v2c",
            "COMMUNITY": "public", "SNMP_PORT": str(device_port), "POLL_ID": "p"}
    odd = {"DEVICE_NAME": ("", " ", "a" * 10_000, "127.0.0.1;x", "\0", 7, "a b"), "SNMP_PORT": ("-1", "0", "99999999999", "1x", 161),
           "OID": ("", ".", ",,,,", "1." * 50_000, ".1.4294967296", ".-1.3", ",".join([".1.3.6.1.4.1.99999.0.0"] * 5000), "é", 7),
           "COMMUNITY": ("", "c" * 100_000, "\0", [], "\ud800"), "SNMP_VERSION": ("v9", "", 3), "PROTOCOL": ("", 1, "x" * 70_000),
           "POLL_ID": ("\n", "STATUS", {}), "POLICY_NAME": ("p" * 99_999,), "AGENT_KEY": ("../../" + MARK, "LONG1\n")}
    wmi = {"Name": "R", "wmiQuery": "SELECT Name FROM Win32_OperatingSystem"}
    queries = ("", "SELECT", "SELECT * FROM " + "A" * 500_000, "SELECT * FROM Win32_Process WHERE " + "(" * 50_000,
               "SELECT * FROM Win32_Process WHERE " + "NOT " * 50_000 + "Name='a'", "SELECT " + "Name," * 50_000 + "Name FROM Win32_Process",
               "SELECT * FROM Win32_Process WHERE Name LIKE '" + "%a" * 2000 + "'", "SELECT * FROM CIM_DataFile", "\0", "'; DROP")
    rows = [one(f"script {str(value)[:40]!r}", workflow_of({"script": value, "Name": "N", "response_needed": "true"}))
            for value in scripts]
    rows += [one(f"params {value[:40]!r}", workflow_of({"script": "id.sh", "Name": "N", "params": value, "response_needed": "true"}))
             for value in shell]
    rows += [one(f"{member} is {str(value)[:30]!r}", workflow_of({**snmp, member: value}))
             for member, values in odd.items() for value in values]
    rows += [one(f"query {value[:40]!r}", workflow_of({**wmi, "wmiQuery": value})) for value in queries]
    rows += [one(f"Name {str(value)[:30]!r}", workflow_of({**wmi, "Name": value}), workflow_of({"script": "id.sh", "Name": value}))
             for value in ("", "ERRORMSG", '"}', "\n", "n" * 500_000, 7, [])]
    rows += [one(f"nameSpace {str(value)[:30]!r}", workflow_of({**wmi, "nameSpace": value})) for value in ("..\\..\\x", "n" * 99_999, 1)]
    rows += [one(f"interval {value!r}", workflow_of(wmi, interval=value)) for value in
             ("1", 0, -1, 1.5, 1e308, 2**31, 2**32, 2**63, 2**64 + 1, -2**63, True, None, [], {})]
    rows += [one("records are not a list", *[workflow_of(recordSetName=value) for value in (None, 1, "x", {}, [1], [None], [[]], [{}])]),
             one("workflows that are not objects", 1, "x", None, [], [[]], True), one("10,000 workflows", *[workflow_of()] * 10_000),
             one("200 workflows of the same script", *[workflow_of({"script": "id.sh", "Name": "N", "response_needed": "true"})] * 200),
             one("100,000 records", workflow_of(recordSetName=[{"a": "b"}] * 100_000)), one("a name of 1 MB", workflow_of(wfname="w" * 1_000_000)),
             one("every member is an object", workflow_of({name: {} for name in (*snmp, *wmi, "script")}))]
    good = '{"WorkFlows": [{"wfname": "w", "interval": 1, "recordSetName": [' + json.dumps(wmi) + "]}]}"
    refused = {"nothing": b"", "a zero": b"\0", "half a character": b"{", "brackets": wide("[" * 100_000), "objects": wide('{"a":' * 50_000),
               "a list": wide("[]"), "a number": wide("1"), "null": wide("null"), "a text": wide('"x"'), "cut": wide(good)[:-9],
               "another key": wide('{"WorkFlow": []}'), "a list of another kind": wide('{"WorkFlows": {}}'), "lone surrogates": b"\0\xd8" * 999,
               "20 MB of blanks": wide(" " * 10_000_000), "a million commas": wide('{"WorkFlows": [' + "1," * 1_300_000 + "1]}"),
               "a million objects": wide('{"WorkFlows": [' + "{}," * 300_000 + "{}]}"), "infinity": wide('{"WorkFlows": [Infinity'),
               "an image": b"\x89PNG\r\n\x1a\n" * 99, "the key twice, cut": wide('{"WorkFlows": [], "WorkFlows": [')}
    rows += [(f"plan: {title}", content, False) for title, content in refused.items()]
    rows += [("UTF-8", good.encode(), True), ("UTF-8 with a mark", b"\xef\xbb\xbf" + good.encode(), None), ("a mark", b"\xff\xfe" + wide(good), True),
             ("the other byte order", b"\xfe\xff" + good.encode("utf-16-be"), None), ("an odd length", wide(good) + b"\n", None),
             ("junk behind", wide(good + "]]]"), None), ("zeros behind", wide(good) + bytes(5000), None), ("20,000 members",
             wide("{" + "".join(f'"m{number}": 1, ' for number in range(20_000)) + good[1:]), None), ("the key twice", wide(good[:-1] +
             ', "WorkFlows": []}'), None), ("escapes", wide(good.replace("w", "\\u0077\\ud800\\u0000")), None)]
    base = [wide(good), rows[0][1], wide({"WorkFlows": [workflow_of(snmp), workflow_of(wmi)]})]
    return rows + [(f"mutation {number}", mutated(rng, rng.choice(base), rng.choice(base)), None) for number in range(50)]


# --- lists of requests ------------------------------------------------------------------------------------------------

def lists(rng, world, own_port, decoy_port):
    """(title, bytes of a list)."""
    def one(title, *requests):
        return title, wide({"RequestList": list(requests)})

    download = {"REQUEST_TYPE": "DOWNLOAD_QUERYCONF", "AGENT_KEY": "LONG1", "AGENT_REQUEST_ID": "9", "DOWNLOAD_URL": "none"}
    delete = {"REQUEST_TYPE": "DELETE_DEVICE", "DEVICE_NAME": "S9", "AGENT_REQUEST_ID": "8"}
    discover = {"REQUEST_TYPE": "DISCOVER_SNMP_DEVICES", "DEVICE_NAME": "127.0.0.1", "SNMP_PORT": "1", "SNMP_TIMEOUT": "1"}
    test = {"REQUEST_TYPE": "TEST_MONITOR", "MONITOR_NAME": "M", "RESPONSE_NEEDED": "YES", "WMIQUERY": "SELECT * FROM Win32_Service"}
    urls = (f"file://{world}/etc/plan.zip", f"http://127.0.0.1:{decoy_port}/x", f"//127.0.0.1:{decoy_port}/x", f"@127.0.0.1:{decoy_port}/x",
            f":{decoy_port}/x", f"\\\\127.0.0.1:{decoy_port}\\x", f"#@127.0.0.1:{decoy_port}/", "../../etc/plan.zip", "gopher://x",
            "\r\nHost: x\r\n\r\nGET /", "x" * 500_000, "%00", "?" * 9999, "", "\0", " ", "\ud800", f"localhost:{own_port}", 7, [], None)
    keys = [name for name in climbs(world) if isinstance(name, str)] + ["", ".", "..", "k" * 5000, "S9\0x", "queryconf.txt", "S9.", 7, None, {}]
    rows = [one(f"DOWNLOAD_URL {str(url)[:40]!r}", {**download, "DOWNLOAD_URL": url}) for url in urls]
    rows += [one(f"AGENT_KEY {str(key)[:40]!r}", {**download, "AGENT_KEY": key}, {**delete, "DEVICE_NAME": key}) for key in keys]
    rows += [one(f"AGENT_REQUEST_ID {str(value)[:30]!r}", {**test, "AGENT_REQUEST_ID": value}) for value in
             ("", "\n", "5&moId=x", "i" * 200_000, "\0", 7, [], "NONE", "\ud800", "é ")]
    rows += [one(f"REQUEST_TYPE {str(value)[:30]!r}", {"REQUEST_TYPE": value}) for value in ("", "x" * 99_999, "test_monitor", 1, None, {})]
    rows += [one(f"discovery of {str(name)[:30]!r}", {**discover, **name}) for name in
             ({"DEVICE_NAME": ""}, {"DEVICE_NAME": "n" * 99_999}, {"SNMP_PORT": "-1"}, {"SNMP_TIMEOUT": "99999999999"}, {"COMMUNITY": "c" * 99_999},
              {"SNMP_PORT": 1}, {"DEVICE_NAME": None})]
    rows += [one(f"{kind} {value[:30]!r}", {"REQUEST_TYPE": kind, "SERVICE_NAME": value, "MONITOR_NAME": "M", "RESPONSE_NEEDED": "YES"})
             for kind in ("START_SERVICE", "STOP_SERVICE") for value in ("", "../../x", f"x; touch {world}/{MARK}", "s" * 70_000, "\0")]
    rows += [one(f"MONITOR_NAME {str(value)[:30]!r}", {**test, "MONITOR_NAME": value}) for value in ("ERRORMSG", "", "\n", 7)]
    rows += [one("elements that are not objects", 1, None, "x", [], [[]], True), one("5,000 requests", *[{"REQUEST_TYPE": "x"}] * 5000),
             one("200 deletions", *[delete] * 200), one("100 downloads of nothing", *[download] * 100),
             one("a request of 20,000 members", {f"m{number}": "v" for number in range(20_000)})]
    good = json.dumps({"RequestList": [test, delete]})
    raw = {"text": b"<html>", "one byte": b"x", "cut": wide(good)[:-8], "brackets": wide("[" * 100_000), "objects": wide('{"a":' * 50_000),
           "a list": wide("[]"), "a number": wide("1"), "no list": wide('{"RequestList": {}}'), "no key": wide("{}"), "UTF-8": good.encode(),
           "the other byte order": good.encode("utf-16-be"), "an odd length": wide(good) + b"x", "zeros": bytes(4096),
           "zeros behind": wide(good) + bytes(99), "20 MB of blanks": wide(" " * 10_000_000), "60 MB": b"[\0" * 30_000_000,
           "70 MB": b"[\0" * 35_000_000, "lone surrogates": b"\0\xd8" * 999, "FORGED lines": wide("\r\n2026 FORGED\r\n" * 99)}
    rows += [(f"list: {title}", content) for title, content in raw.items()]
    base = [rows[0][1], rows[30][1], wide(good)]
    return rows + [(f"mutation {number}", mutated(rng, rng.choice(base), rng.choice(base))) for number in range(40)]


# --- answers of the server --------------------------------------------------------------------------------------------

def answers(rng, own_port):
    """(title, parts): what a server sends, until it is hung up on."""
    def head(*fields, status="200 OK"):
        return f"HTTP/1.1 {status}\r\n".encode() + b"".join(field.encode("latin-1") + b"\r\n" for field in fields) + b"\r\n"

    rows = [("headers without end", [b"HTTP/1.1 200 OK\r\n", *[b"A: " + b"b" * 8000 + b"\r\n"] * 2000]),
            ("a header without end", [b"HTTP/1.1 200 OK\r\nA: ", *[b"b" * 65_536] * 200]), ("a status without end", [b"HTTP/1.1 200 ", *[b"O" * 65_536] * 200]),
            ("200,000 small headers", [b"HTTP/1.1 200 OK\r\n", *[b"A: b\r\n" * 1000] * 200]), ("a body of 150 MB", [head(), *[b"[\0" * 32_768] * 2300]),
            ("chunks without end", [head("Transfer-Encoding: chunked"), *[b"10000\r\n" + b"[\0" * 32_768 + b"\r\n"] * 2300]),
            ("a bomb of gzip", [head("Content-Encoding: gzip", "Connection: close"), zlib.compress(bytes(50 << 20), 9, 31)]),
            ("10,000 interim answers", [b"HTTP/1.1 100 Continue\r\n\r\n" * 10_000, head("Content-Length: 0")])]
    lengths = ("-1", "+5", "0x10", "99999999999999999999", "9223372036854775807", "5, 6", "", "5\r\nContent-Length: 6", "1e9", "5 5")
    rows += [(f"Content-Length {value!r}", [head(f"Content-Length: {value}"), b"x" * 50]) for value in lengths]
    chunks = (b"-1\r\nx", b"ffffffffffffffffff\r\nx", b"0", b"5;" + b"e" * 99_999 + b"\r\nabcde\r\n0\r\n\r\n", b"zz\r\n", b"5\r\nabcdefgh\r\n", b"\r\n\r\n",
              b"0\r\n" + b"T: t\r\n" * 9999 + b"\r\n")
    rows += [(f"chunk {value[:20]!r}", [head("Transfer-Encoding: chunked"), value]) for value in chunks]
    targets = ("file:///etc/passwd", f"http://127.0.0.1:{own_port}/loop", "/loop", "", "//", "ftp://127.0.0.1/", "gopher://127.0.0.1/", "dict://127.0.0.1:1/",
               "http://127.0.0.1:1/", "http://[::", "http://" + "a" * 99_999, "\x01", "data:,x", "http://127.0.0.1:99999/", "../" * 999)
    rows += [(f"redirect {status} to {value[:30]!r}", [head(f"Location: {value}", "Content-Length: 0", status=f"{status} X")])
             for status, value in zip((301, 302, 303, 307, 308) * 3, targets)]
    starts = (b"", b"\0" * 999, b"HTTP/1.1", b"HTTP/9.9 200 OK\r\n\r\n", b"HTTP/1.1 20 OK\r\n\r\n", b"HTTP/1.1 2000 OK\r\n\r\n", b"HTTP/1.1 -200 OK\r\n\r\n",
              b"HTTP/0.9\r\n", b"ICY 200 OK\r\n\r\n", b"HTTP/2 200\r\n\r\n", b"HTTP/1.1 101 Switching\r\nUpgrade: h2c\r\n\r\n", b"HTTP/1.1 200 OK\r\n\r",
              b"\r\n\r\nHTTP/1.1 200 OK\r\n\r\n", b"HTTP/1.1 200 OK\r\n folded\r\n\r\n", b"HTTP/1.1 200 OK\r\nno colon\r\n: x\r\n\r\n", b"\x16\x03\x01\x02\0\x01\0",
              b"SSH-2.0-x\r\n", b"HTTP/1.1 401 X\r\nWWW-Authenticate: Negotiate\r\n\r\n", b"HTTP/1.1 407 X\r\nProxy-Authenticate: Basic\r\n\r\n",
              b"HTTP/1.1 204 No\r\nContent-Length: 9\r\n\r\n", b"HTTP/1.1 200 OK\r\nSet-Cookie: " + b"c" * 99_999 + b"\r\n\r\n",
              b"HTTP/1.1 200 OK\r\nContent-Length: 5\r\nTransfer-Encoding: chunked\r\n\r\n0\r\n\r\n")
    rows += [(f"answer {value[:30]!r}", [value]) for value in starts]
    base = [head("Content-Length: 24", "Connection: close") + wide('{ "A": [ ] }'), b"".join(rows[20][1]),
            head("Transfer-Encoding: chunked", "timeDiff: 0") + b"6\r\n{\0}\0\0\0\r\n0\r\n\r\n"]
    return rows + [(f"mutation {number}", [mutated(rng, rng.choice(base), rng.choice(base))]) for number in range(30)]


def registrations(rng):
    """(title, header fields of an answer to a registration). None of their keys may be taken."""
    keys = ("../../" + MARK, "..", ".", "", "k" * 65, "k" * 100_000, "a/b", "a\\b", "C:x", "a&b=c", "a%2fb", "\x01", "\x7f", "é", '"', "*", "a\0b")
    numbers = ("-1", "99999999999", "abc", "", "1e9", "2147483648", "-2147483649", "0x10", "5 ; x", "\x01", "9" * 100_000)
    rows = [(f"AgentKey {key[:20]!r}", [("AgentKey", key), ("timeDiff", 0), ("AgentRun", 1)]) for key in keys]
    rows += [(f"{name} {value[:20]!r}", [(name, value), ("AgentKey", "LONG1"), ("AgentRun", 1)]) for name in ("timeDiff", "SNMPTimeout") for value in numbers
             if (name, value) != ("SNMPTimeout", "99999999999")]
    return rows + [(f"AgentRun {value!r}", [("AgentRun", value), ("AgentKey", "LONG1")]) for value in ("2", "-1", "", "yes", "\x01", "1" * 9999)]
