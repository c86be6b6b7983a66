"""The hostile inputs of the long gate: tables made by hand, and what a seed makes of good ones. Each begins with its title;
`world` is the folder that holds the agent and what hostile names lead to."""

import io
import json
import random
import warnings
import zipfile
import zlib

from agent import workflow

MIB = bytes(1 << 20)
MARK = "kv_hostile_mark"  # what has this name was written or run because a name led out


def wide(value):
    return (value if isinstance(value, str) else json.dumps(value)).encode("utf-16-le", "surrogatepass")


def mutated(seed, good, count):
    """(title, one of the good ones with flipped bits, or with a part left out, repeated, replaced or zeroed)."""
    chance = random.Random(seed)
    for number in range(count):
        data, other = bytearray(chance.choice(good)), chance.choice(good)
        at, end = sorted(chance.randrange(len(data)) for _ in range(2))
        if chance.random() < 0.4:
            for _ in range(chance.randint(1, 8)):
                data[chance.randrange(len(data))] ^= 1 << chance.randrange(8)
        else:
            data[at:end] = chance.choice((b"", data[at:end] * chance.randint(2, 20), other[at:], b"\xff" * 4, bytes(end - at)))
        yield f"mutant {number}", bytes(data)


def twisted(chance, good, hostile, count):
    """(title, one of the good objects with one hostile member)."""
    return chance.sample([(f"{member} {str(value)[:40]!r} of {json.dumps(one)[:60]}", {**one, member: value})
                          for one in good for member in one for value in hostile], count)


def archive(*members):
    """The bytes of a zip of (name, content) or (name, content, mode). The content may be a list of pieces."""
    target = io.BytesIO()
    with zipfile.ZipFile(target, "w") as made, warnings.catch_warnings():
        warnings.simplefilter("ignore")  # a name that comes twice
        for name, content, *mode in members:
            member = zipfile.ZipInfo("x")
            member.filename, member.compress_type, member._compresslevel = name, zipfile.ZIP_DEFLATED, 1
            member.external_attr = (*mode, 0o644)[0] << 16
            with made.open(member, "w") as file:
                file.writelines(content if isinstance(content, list) else [content])
    return target.getvalue()


def climbs(world):
    """Names that lead, or seem to lead, elsewhere."""
    ways = ("../../../", "a/../../../../", ".//..//..//..//", "./.././../../", "....//....//....//", "..\\../..\\",
            "\\..\\..\\..\\", "//..//..//../", "..%2f..%2f", "../" * 12, "..\\" * 40, "\u2025/\u2025/", "..;/../", "/tmp/",
            "C:\\", "c:/", "C:", "\\\\127.0.0.1\\c$\\", "\\\\?\\C:\\", "file:///tmp/", "/proc/self/cwd/", "/dev/shm/",
            f"{world}/".replace("/", "\\"))
    return (*(way + MARK for way in ways), f"{world}/etc/passwd", f"/{world}/etc/cron.d/job", "\\\\.\\PhysicalDrive0", "..",
            ".", "../../../../agent2/monitoring/conf", "../../../..", "")


def commands(world):
    """What runs a program elsewhere, or seems to."""
    tool = "opt/other/tool"
    return (f"{world}/{tool}", "../" * 6 + tool, ("../" * 6 + tool).replace("/", "\\"), f"\n{world}/{tool}",
            f"&& {world}/{tool}", f"; touch {world}/{MARK}", f"$(touch {world}/{MARK})", f"`touch {world}/{MARK}`",
            f"| tee {world}/{MARK}", f"> {world}/{MARK}", f"id.sh; touch {world}/{MARK}")


OWN_FILES = ("../queryconf.txt", "../../bin/agent.lock", "../../../state/registry.db", "..\\scripts\\id.sh",
             "../scripts/new.sh", "../backup/queryconf.txt", "../../bin/data/Agent_LONG1_1.txt", "RequestList.txt",
             "RequestList.txt/", "RequestList.txt.tmp/", "queryconf.zip", "queryconf.txt.refused/", "../../logs/agent.log")
ODD_NAMES = ("/", "\\", "\0", "a\0b", "queryconf.txt\0.sh", "CON", "aux.txt", "COM1:", "a:stream", "a.", "a ", "*", '"',
             "a" * 259, "a" * 60_000, "d/" * 20_000 + "x", "line\nFORGED", "\x1b[2J", "\u202etxt.exe", "-rf", "~root", "$HOME")
VALUES = (None, True, [], {}, [[]], 7, 0, -1, 1.5, 1e308, 2**31, 2**63, 2**64 + 1, "-1", "99999999999", "1x", "." * 9,
          "1." * 50_000, ".1.4294967296", "x" * 1_000_000, "%s%n", "\ud800", '"}', "(" * 50_000, "ERRORMSG", "AGENTKEY",
          "\r\n\r\nGET /", "SELECT * FROM " + "A" * 500_000,
          "SELECT * FROM Win32_Process WHERE " + "NOT " * 50_000 + "Name='a'",
          "SELECT * FROM Win32_Process WHERE Name LIKE '" + "%a" * 2000 + "'")

# Neither archives nor plans nor lists.
GARBAGE = (("nothing", b""), ("one byte", b"x"), ("text", b"<html>no</html>"), ("zeros", bytes(4096)),
           ("brackets", wide("[" * 100_000)), ("objects", wide('{"a":' * 50_000)), ("a list", wide("[]")),
           ("lone surrogates", b"\0\xd8" * 999), ("20 MB of blanks", wide(" " * 10_000_000)),
           ("a list without end", wide('{"a": [' + "1," * 1_300_000)), ("forged lines", wide("\r\n2026 FORGED\r\n" * 99)))


def archives(chance, world, new_plan):
    """(title, bytes). After each the plan in use is one of new_plan()."""
    def beside(*members):
        return archive(*members, ("queryconf.txt", new_plan()))

    rows = [(f"a member {name[:60]!r}", beside((name, b"" if name[-1:] == "/" else b"#!/bin/sh\n", 0o104755)))
            for name in (*climbs(world), *OWN_FILES, *ODD_NAMES) if name]
    rows += [(f"a link to {target}", beside(("link", target.encode(), 0o120777), (f"link/{MARK}", b"x"),
                                            ("link/scripts/new.sh", b"x"), ("link", b"again")))
             for target in ("../../..", f"{world}", "/", "../scripts", ".")]
    good = ("queryconf.txt", new_plan())
    shared = io.BytesIO(archive(("zeros", [MIB] * 64), good))
    with zipfile.ZipFile(shared, "a") as made:
        made.filelist += [made.filelist[0]] * 1000
        made.comment = b"so that the directory is written"
    whole = archive(good)
    rows += [("one gigabyte of zeros", beside(("zeros", [MIB] * 1024))), ("a setuid plan", archive((*good, 0o104777))),
             ("one gigabyte as the plan", archive(("queryconf.txt", [MIB] * 1024))), ("two ends", whole + archive()),
             ("a thousand members share one", shared.getvalue()), ("an end alone", archive()), ("junk ahead", b"x" + whole),
             ("10,000 members", beside(*[(f"{number}", b"") for number in range(10_000)])),
             ("2,000 climbing members", beside(*[(f"../{number}{MARK}", b"") for number in range(2000)])),
             ("1,000 folders", beside(*[("d/" * (number % 120) + f"{number}/", b"") for number in range(1000)])),
             ("a link as the plan", archive(("queryconf.txt", f"{world}/etc/plan".encode(), 0o120777))),
             ("the plan twice", beside(good)), ("the plan, then a member below it", archive(good, ("queryconf.txt/x", b""))),
             ("the plan, then a folder of its name", archive(good, ("queryconf.txt/", b""))),
             ("the plan in other letters", archive(("QueryConf.TXT", good[1])))]
    base = [beside(("a.sh", b"#!/bin/sh\n" * 9), ("sub/b", chance.randbytes(99)), ("../" + MARK, b"x")) for _ in range(4)]
    return [*rows, *GARBAGE, *mutated(chance.random(), [whole, *base], 140)]


def plans(chance, world, device_port):
    """(title, an archive of a plan, the plan if it may be used)."""
    run = {"script": "id.sh", "Name": "N", "params": "", "response_needed": "true"}
    wmi = {"Name": "R", "wmiQuery": "SELECT Name FROM Win32_OperatingSystem", "nameSpace": "root\\cimv2"}
    snmp = {"PROTOCOL": "SPOLL", "OID": ".1.3.6.1.4.1.99999.0.0", "DEVICE_NAME": "127.0.0.1", "SNMP_VERSION": "v2c",
            "COMMUNITY": "public", "SNMP_PORT": str(device_port), "POLL_ID": "p", "AGENT_KEY": "DEVICE1"}
    values = (*climbs(world), *ODD_NAMES, *VALUES)
    rows = [(f"{member} {value!r}", [workflow("w", [{**run, member: value}])])
            for member in ("script", "params") for value in commands(world)]
    rows += [(title, [workflow("w", [record])]) for title, record in twisted(chance, (run, wmi, snmp), values, 80)]
    rows += [(title, [one]) for title, one in twisted(chance, [workflow("w", [wmi])], values, 25)]
    rows += [("workflows are not objects", [1, "x", None, [], [[]], True]), ("10,000 workflows", [workflow("w", [])] * 10_000),
             ("200 workflows", [workflow("w", [run])] * 200), ("100,000 records", [workflow("w", [{"a": "b"}] * 100_000)])]
    good, other = wide({"WorkFlows": [workflow("w", [wmi])]}), wide({"WorkFlows": [workflow("w", [snmp, run])]})
    usable = [*[(title, wide({"WorkFlows": workflows})) for title, workflows in rows], ("an odd length", good + b"x"),
              ("zeros behind", good + bytes(99)), *mutated(chance.random(), [good, other], 40)]
    useless = [*GARBAGE, ("another key", wide({"WorkFlow": []})), ("another kind", wide({"WorkFlows": {}})), ("cut", good[:-8])]
    return ([(title, archive(("queryconf.txt", content)), content) for title, content in usable] +
            [(title, archive(("queryconf.txt", content))) for title, content in useless])


def lists(chance, world, other_port, offer):
    """(title, bytes of a list of requests). `offer` gives the path under which an archive can be downloaded."""
    download = {"REQUEST_TYPE": "DOWNLOAD_QUERYCONF", "AGENT_KEY": "LONG1", "AGENT_REQUEST_ID": "9", "DOWNLOAD_URL": "none"}
    delete = {"REQUEST_TYPE": "DELETE_DEVICE", "DEVICE_NAME": "S9", "AGENT_REQUEST_ID": "8"}
    discover = {"REQUEST_TYPE": "DISCOVER_SNMP_DEVICES", "DEVICE_NAME": "127.0.0.1", "SNMP_PORT": "1", "SNMP_TIMEOUT": "1"}
    test = {"REQUEST_TYPE": "TEST_MONITOR", "AGENT_REQUEST_ID": "7", "MONITOR_NAME": "M", "RESPONSE_NEEDED": "YES",
            "WMIQUERY": "SELECT * FROM Win32_Service"}
    start = {"REQUEST_TYPE": "START_SERVICE", "SERVICE_NAME": "x", "MONITOR_NAME": "M", "RESPONSE_NEEDED": "YES"}
    elsewhere = [way.format(f"127.0.0.1:{other_port}") for way in (
        "//{}/x", "http://{}/x", "@{}/x", "\\\\{}\\x", "#@{}/", "?@{}", " http://{}/", "\r\nHost: {}\r\n\r\nGET /")]
    rows = [(f"a download of {value[:40]!r}", [{**download, "DOWNLOAD_URL": value}])
            for value in (f"file://{world}/etc/plan.zip", "../../etc/plan.zip", f":{other_port}/x", "?" * 9999, *elsewhere)]
    for key in (*climbs(world), "k" * 5000, "S9\0x", "queryconf.txt", "S9.", 7, None, {}):
        path = offer(archive(("queryconf.txt", wide({f"WorkFlows_{key}": [workflow("w", [])]}))))
        rows += [(f"a plan of {str(key)[:40]!r}", [{**download, "AGENT_KEY": key, "DOWNLOAD_URL": path}]),
                 (f"the deletion of {str(key)[:40]!r}", [{**delete, "DEVICE_NAME": key}])]
    rows += [(title, [one]) for title, one in twisted(
        chance, (download, delete, discover, test, start, {**start, "REQUEST_TYPE": "STOP_SERVICE"}),
        (*climbs(world), *commands(world), *VALUES), 70)]
    rows += [("elements are not objects", [1, None, "x", [], [[]], True]), ("5,000 requests", [{"REQUEST_TYPE": "x"}] * 5000),
             ("200 deletions", [delete] * 200), ("100 downloads of nothing", [download] * 100)]
    good = wide({"RequestList": [test, delete]})
    return [*[(title, wide({"RequestList": requests})) for title, requests in rows], *GARBAGE,
            ("odd", good + b"x"), ("zeros behind", good + bytes(99)), ("cut", good[:-8]),
            ("no list", wide({"RequestList": {}})), ("60 MB", b"[\0" * 30_000_000), ("70 MB", b"[\0" * 35_000_000),
            *mutated(chance.random(), [wide({"RequestList": [download]}), good], 40)]


def answers(chance):
    """(title, parts): what a server sends, until it is hung up on."""
    start, block, chunked = b"HTTP/1.1 200 OK\r\n", b"[\0" * 32_768, b"Transfer-Encoding: chunked\r\n\r\n"
    rows = [("headers without end", [start, *[b"A: " + b"b" * 8000 + b"\r\n"] * 2000]),
            ("a header without end", [start + b"A: ", *[block] * 200]), ("a status without end", [start[:-2], *[block] * 200]),
            ("200,000 headers", [start, *[b"A: b\r\n" * 1000] * 200]), ("a body of 150 MB", [start + b"\r\n", *[block] * 2300]),
            ("10,000 interim answers", [b"HTTP/1.1 100 Continue\r\n\r\n" * 10_000, start + b"\r\n"]),
            ("chunks without end", [start + chunked, *[b"10000\r\n" + block + b"\r\n"] * 2300]),
            ("a bomb of gzip", [start + b"Content-Encoding: gzip\r\n\r\n", zlib.compress(bytes(50 << 20), 9, 31)])]
    rows += [(f"{value[:40]}", [start + value + b"\r\n\r\nabcde"]) for value in (
        *[b"Content-Length: " + size for size in (b"+5", b"0x10", b"9223372036854775807", b"5, 6", b"", b"1e9", b"5 5")],
        *[chunked + size for size in (b"-1", b"f" * 18, b"5;" + b"e" * 99_999, b"0\r\n" + b"T: t\r\n" * 9999)],
        b" folded", b"no colon\r\n: x", b"Set-Cookie: " + b"c" * 99_999)]
    base = [start + b"Content-Length: 24\r\nConnection: close\r\n\r\n" + wide('{ "A": [ ] }'),
            b"HTTP/1.1 401 X\r\nWWW-Authenticate: Negotiate\r\n\r\n", b"HTTP/1.1 307 X\r\nLocation: /loop\r\n\r\n",
            start + b"timeDiff: 0\r\n" + chunked + b"6\r\n{\0}\0\0\0\r\n0\r\n\r\n"]
    return rows + [(title, [content]) for title, content in mutated(chance.random(), base, 40)]

