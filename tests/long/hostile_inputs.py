"""The hostile inputs of the long gate: tables made by hand, and what a seed makes of good ones. Each begins with its title;
`world` is the folder that holds the agent and what hostile names lead to."""

import io
import json
import random
import warnings
import zipfile
import zlib

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
    rows = [(f"{member} {str(value)[:40]!r} of {json.dumps(one)[:60]}", {**one, member: value})
            for one in good for member in one for value in hostile]
    return chance.sample(rows, count)


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


def zeros(megabytes):
    return [bytes(1 << 20)] * megabytes


def patched(whole):
    """An archive with a changed word of its headers: a flag, a method, a sum, a size, a length, an offset or a count."""
    for header, words in ((b"PK\3\4", 13), (b"PK\1\2", 21), (b"PK\5\6", 9)):
        for at in range(whole.index(header) + 4, whole.index(header) + 4 + 2 * words, 2):
            for word in (b"\0\0", b"\1\0", b"\xff\xff"):
                yield f"an archive with {word!r} at {at}", whole[:at] + word + whole[at + 2:]


def climbs(world):
    """Names that lead, or seem to lead, elsewhere."""
    ways = ("../../../", "a/../../../../", ".//..//..//..//", "./.././../../", "....//....//....//", "..\\../..\\",
            "\\..\\..\\..\\", "//..//..//../", "..%2f..%2f", "../" * 12, "..\\" * 40, "\u2025/\u2025/", "..;/../", "/tmp/",
            "C:\\", "c:/", "C:", "\\\\127.0.0.1\\c$\\", "\\\\?\\C:\\", "file:///tmp/", "/proc/self/cwd/", "/dev/shm/",
            f"{world}/".replace("/", "\\"))
    return (*(way + MARK for way in ways), f"{world}/etc/passwd", f"/{world}/etc/cron.d/job", "\\\\.\\PhysicalDrive0", "..", ".",
            f"{world}/opt/other/tool", "../" * 8 + "opt/other/tool", "../../../../agent2/monitoring/conf", "../../../..", "")


OWN_FILES = ("../queryconf.txt", "../../bin/agent.lock", "../../../state/registry.db", "..\\scripts\\id.sh",
             "../scripts/new.sh", "../backup/queryconf.txt", "../../bin/data/Agent_LONG1_1.txt", "RequestList.txt",
             "RequestList.txt/", "RequestList.txt.tmp/", "queryconf.zip", "queryconf.txt.refused/", "../../logs/agent.log")
ODD_NAMES = ("/", "\\", "\0", "a\0b", "queryconf.txt\0.sh", "CON", "aux.txt", "COM1:", "a:stream", "a.", "a ", "*", '"', "a" * 259,
             "a" * 60_000, "d/" * 20_000 + "x", "line\nFORGED", "\x1b[2J", "\u202etxt.exe", "-rf", "~root", "$HOME")


def hostile_values(world):
    """What a member of a plan or a request should not be."""
    commands = (f"; touch {world}/{MARK}", f"$(touch {world}/{MARK})", f"`touch {world}/{MARK}`", f"| tee {world}/{MARK}",
                f"> {world}/{MARK}", f"\n{world}/opt/other/tool", f"id.sh; touch {world}/{MARK}")
    numbers = (7, 0, -1, 1.5, 1e308, 2**31, 2**63, 2**64 + 1, "-1", "99999999999", "1x", "." * 9, "1." * 50_000, ".1.4294967296")
    return (*climbs(world), *commands, *numbers, *ODD_NAMES, None, True, [], {}, [[]], "x" * 1_000_000, "%s%n", "\ud800",
            '"}', "(" * 50_000, "SELECT * FROM " + "A" * 500_000, "SELECT * FROM Win32_Process WHERE " + "NOT " * 50_000 + "Name='a'",
            "SELECT * FROM Win32_Process WHERE Name LIKE '" + "%a" * 2000 + "'", "ERRORMSG", "AGENTKEY", "\r\n\r\nGET /")


def archives(chance, world, new_plan):
    """(title, bytes). After each the plan in use is one of new_plan()."""
    def beside(*members):
        return archive(*members, ("queryconf.txt", new_plan()))

    rows = [(f"a member {name[:60]!r}", beside((name, b"" if name[-1:] == "/" else b"#!/bin/sh\n", 0o104755)))
            for name in (*climbs(world), *OWN_FILES, *ODD_NAMES) if name]
    rows += [(f"a link to {target}", beside(("link", target.encode(), 0o120777), (f"link/{MARK}", b"x"), ("link/scripts/new.sh", b"x"),
                                            ("link", b"again"))) for target in ("../../..", f"{world}", "/", "../scripts", ".")]
    good, bomb = ("queryconf.txt", new_plan()), archive(("zeros", zeros(64)))
    shared = io.BytesIO(archive(("zeros", zeros(64)), good))
    with zipfile.ZipFile(shared, "a") as made:
        made.filelist += [made.filelist[0]] * 1000
        made.comment = b"so that the directory is written"
    for _ in range(6):
        bomb = archive(*[(f"{number}.zip", bomb) for number in range(4)])
    rows += [("one gigabyte of zeros", beside(("zeros", zeros(1024)))), ("one as the plan", archive(("queryconf.txt", zeros(1024)))),
             ("400 MB as the plan", archive(("queryconf.txt", zeros(400)))), ("zips in zips, six deep", beside(("zip", bomb))),
             ("a thousand members share one", shared.getvalue()),
             ("10,000 members", beside(*[(f"{number}", b"") for number in range(10_000)])),
             ("2,000 climbing members", beside(*[(f"../{number}{MARK}", b"") for number in range(2000)])),
             ("1,000 folders", beside(*[("d/" * (number % 120) + f"{number}/", b"") for number in range(1000)])),
             ("a link as the plan", archive(("queryconf.txt", f"{world}/etc/plan".encode(), 0o120777))),
             ("the plan twice", beside(good)), ("the plan, then a member below it", archive(good, ("queryconf.txt/x", b""))),
             ("the plan, then a folder of its name", archive(good, ("queryconf.txt/", b""))),
             ("the plan in other letters", archive(("QueryConf.TXT", good[1]))), ("a setuid plan", archive((*good, 0o104777)))]
    whole = archive(good)
    rows += [("nothing", b""), ("text", b"<html>no</html>"), ("an end alone", archive()), ("junk ahead", b"MZ" * 999 + whole),
             ("junk behind", whole + bytes(99_000)), ("two ends", whole + archive())]
    base = [beside(("a.sh", b"#!/bin/sh\n" * 9), ("sub/b", chance.randbytes(3000)), ("../" + MARK, b"x")) for _ in range(4)]
    return rows + chance.sample(list(patched(whole)), 80) + list(mutated(chance.random(), base, 60))


def flow(*records, **members):
    """A workflow."""
    return {"wfname": "w", "interval": 1, "recordSetName": list(records), **members}


def plans(chance, world, device_port):
    """(title, an archive of a plan, the plan if it may be used)."""
    run = {"script": "id.sh", "Name": "N", "params": "", "response_needed": "true"}
    wmi = {"Name": "R", "wmiQuery": "SELECT Name FROM Win32_OperatingSystem", "nameSpace": "root\\cimv2"}
    snmp = {"PROTOCOL": "SPOLL", "OID": ".1.3.6.1.4.1.99999.0.0", "DEVICE_NAME": "127.0.0.1", "SNMP_VERSION": "v2c",
            "COMMUNITY": "public", "SNMP_PORT": str(device_port), "POLL_ID": "p", "AGENT_KEY": "DEVICE1"}
    values = hostile_values(world)
    rows = [(title, [flow(record)]) for title, record in twisted(chance, (run, wmi, snmp), values, 90)]
    rows += [(title, [one]) for title, one in twisted(chance, [flow(wmi)], values, 25)]
    rows += [("workflows are not objects", [1, "x", None, [], [[]], True]), ("10,000 workflows", [flow()] * 10_000),
             ("200 workflows of one script", [flow(run)] * 200), ("100,000 records", [flow(*[{"a": "b"}] * 100_000)]),
             ("members are objects", [flow({name: {} for name in (*snmp, *wmi)})])]
    good = wide({"WorkFlows": [flow(wmi)]})
    usable = [(title, wide({"WorkFlows": workflows})) for title, workflows in rows]
    usable += [("UTF-8 with a mark", b"\xef\xbb\xbf" + good.decode("utf-16-le").encode()), ("a mark", b"\xff\xfe" + good),
               ("an odd length", good + b"\n"), ("junk behind", good + wide("]]]")), ("zeros behind", good + bytes(5000)),
               ("the key twice", good[:-2] + wide(', "WorkFlows": []}'))]
    usable += mutated(chance.random(), [good, wide({"WorkFlows": [flow(snmp), flow(run)]})], 40)
    useless = [("nothing", b""), ("half a character", b"{"), ("brackets", wide("[" * 100_000)), ("null", wide("null")),
               ("objects", wide('{"a":' * 50_000)), ("a list", wide("[]")), ("a text", wide('"x"')), ("cut", good[:-9]),
               ("another key", wide({"WorkFlow": []})), ("another kind", wide({"WorkFlows": {}})),
               ("lone surrogates", b"\0\xd8" * 999), ("20 MB of blanks", wide(" " * 10_000_000)),
               ("a million commas", wide('{"WorkFlows": [' + "1," * 1_300_000 + "1]}")), ("an image", b"\x89PNG\r\n\x1a\n" * 99)]
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
        path = offer(archive(("queryconf.txt", wide({f"WorkFlows_{key}": [flow()]}))))
        rows += [(f"a plan of {str(key)[:40]!r}", [{**download, "AGENT_KEY": key, "DOWNLOAD_URL": path}]),
                 (f"the deletion of {str(key)[:40]!r}", [{**delete, "DEVICE_NAME": key}])]
    rows += [(title, [one]) for title, one in twisted(
        chance, (download, delete, discover, test, start, {**start, "REQUEST_TYPE": "STOP_SERVICE"}), hostile_values(world), 70)]
    rows += [("elements are not objects", [1, None, "x", [], [[]], True]), ("5,000 requests", [{"REQUEST_TYPE": "x"}] * 5000),
             ("200 deletions", [delete] * 200), ("100 downloads of nothing", [download] * 100)]
    rows = [(title, wide({"RequestList": requests})) for title, requests in rows]
    good = wide({"RequestList": [test, delete]})
    rows += [("text", b"<html>"), ("one byte", b"x"), ("cut", good[:-8]), ("brackets", wide("[" * 100_000)), ("a list", wide("[]")),
             ("objects", wide('{"a":' * 50_000)), ("no list", wide({"RequestList": {}})), ("no key", wide("{}")),
             ("an odd length", good + b"x"), ("zeros", bytes(4096)), ("zeros behind", good + bytes(99)),
             ("20 MB of blanks", wide(" " * 10_000_000)), ("60 MB", b"[\0" * 30_000_000), ("70 MB", b"[\0" * 35_000_000),
             ("lone surrogates", b"\0\xd8" * 999), ("lines of the log", wide("\r\n2026 FORGED\r\n" * 99))]
    return rows + list(mutated(chance.random(), [rows[0][1], good], 40))


def answers(chance):
    """(title, parts): what a server sends, until it is hung up on."""
    start, block, chunked = b"HTTP/1.1 200 OK\r\n", b"[\0" * 32_768, b"Transfer-Encoding: chunked\r\n\r\n"
    rows = [("headers without end", [start, *[b"A: " + b"b" * 8000 + b"\r\n"] * 2000]),
            ("a header without end", [start + b"A: ", *[block] * 200]), ("a status without end", [b"HTTP/1.1 200 ", *[block] * 200]),
            ("200,000 headers", [start, *[b"A: b\r\n" * 1000] * 200]), ("a body of 150 MB", [start + b"\r\n", *[block] * 2300]),
            ("10,000 interim answers", [b"HTTP/1.1 100 Continue\r\n\r\n" * 10_000, start + b"\r\n"]),
            ("chunks without end", [start + chunked, *[b"10000\r\n" + block + b"\r\n"] * 2300]),
            ("a bomb of gzip", [start + b"Content-Encoding: gzip\r\n\r\n", zlib.compress(bytes(50 << 20), 9, 31)])]
    rows += [(f"Content-Length {value}", [start + b"Content-Length: %b\r\n\r\n" % value + b"x" * 50]) for value in
             (b"-1", b"+5", b"0x10", b"9223372036854775807", b"5, 6", b"", b"5\r\nContent-Length: 6", b"1e9", b"5 5")]
    rows += [(f"chunk {value[:20]}", [start + chunked + value]) for value in (
        b"-1\r\nx", b"ffffffffffffffffff\r\nx", b"5;" + b"e" * 99_999 + b"\r\nabcde\r\n0\r\n\r\n", b"5\r\nabcdefgh\r\n",
        b"0\r\n" + b"T: t\r\n" * 9999 + b"\r\n")]
    rows += [(f"redirect to {value[:30]}", [b"HTTP/1.1 %d X\r\nLocation: %b\r\n\r\n" % (status, value)]) for status, value in zip(
        (301, 302, 303, 307, 308) * 2, (b"file:///etc/passwd", b"/loop", b"//", b"ftp://127.0.0.1/", b"dict://127.0.0.1:1/",
                                        b"http://[::", b"http://" + b"a" * 99_999, b"\1", b"data:,x", b"../" * 999))]
    rows += [(f"answer {value[:30]}", [value]) for value in (
        b"HTTP/1.1 2000 OK\r\n\r\n", b"HTTP/1.1 -200 OK\r\n\r\n", b"ICY 200 OK\r\n\r\n", b"\r\n\r\n" + start + b"\r\n",
        start + b" folded\r\n\r\n", start + b"no colon\r\n: x\r\n\r\n", start + b"Set-Cookie: " + b"c" * 99_999 + b"\r\n\r\n",
        b"HTTP/1.1 401 X\r\nWWW-Authenticate: Negotiate\r\n\r\n", start + b"Content-Length: 5\r\n" + chunked + b"0\r\n\r\n")]
    base = [start + b"Content-Length: 24\r\nConnection: close\r\n\r\n" + wide('{ "A": [ ] }'),
            b"HTTP/1.1 307 X\r\nLocation: /loop\r\n\r\n", start + b"timeDiff: 0\r\n" + chunked + b"6\r\n{\0}\0\0\0\r\n0\r\n\r\n"]
    return rows + [(title, [content]) for title, content in mutated(chance.random(), base, 30)]


def registrations():
    """(title, parts): answers to a registration. None of their keys may be taken."""
    numbers = ("-1", "abc", "", "1e9", "2147483648", "0x10", "5 ; x", "\x01", "9" * 100_000)
    hostile = {"timeDiff": numbers, "SNMPTimeout": numbers, "AgentRun": ("2", "-1", "", "yes", "\x01", "1" * 9999),
               "AgentKey": ("../../" + MARK, "..", ".", "", "k" * 65, "k" * 100_000, "a/b", "a\\b", "C:x", "a&b=c", "a%2fb",
                            "\x01", "\x7f", "\xe9", '"', "*", "a\0b")}
    good = {"AgentKey": "LONG1", "timeDiff": "0", "AgentRun": "1"}
    return [(f"{name} {value[:20]!r}", ["".join(("HTTP/1.1 200 OK\r\n", *[f"{field}: {text}\r\n" for field, text in
                                                 {**good, name: value}.items()], "\r\n")).encode()])
            for name, values in hostile.items() for value in values]
