"""Each servlet meets each fault of a server; then a random walk over all of them.

A fault is a row of FAULTS. It strikes all servlets of one run of the agent, in three phases: the start (registration,
uploads, the list of requests), a list that is served (its answer, a plan, the notice), and the stop. After each phase the
server is honest again, and the agent has BOUND of its own clock to be well. A fault that did not strike a servlet fails
the drill like a broken promise.
"""

import os
import pathlib
import random
import re
import select
import socket
import statistics
import sys
import threading
import time
import types

from agent import Agent, Broken, plan, script, settle, workflow
from server import Request, Server, answer, reset, zip_of

RATE = 120
BOUND = 600  # seconds of the fast clock from an honest server to an agent that is well
MINUTE = 60
WALK = 6 * 60 * MINUTE
BIG = """#!/bin/sh
printf '{ "AGENTKEY": "%s", "DATACOLLECTTIME": "%s", "ERRORMSG": "NO ERROR", "%s": [ { "Id": "' "$1" "$3" "$2"
head -c 1200000 /dev/urandom | base64 -w0
printf '" } ] }'
"""
START, LIST, STOP = ("register", "upload", "list"), ("answer", "plan", "notice"), ("status",)
STATIONS = {"RegisterAgent": "register", "FileCollector": "upload", "StatusUpdateServlet": "status",
            "Configuration": "plan", "DataAgentHandlerServlet": "list"}

# What the agent's log says of a refused connection, which no server can count. It says nothing of the notice.
REFUSED = {"register": r"did not register this agent. retVal is \[12029",
           "upload": r"InternetUploadBinaryFile. return value \[12029",
           "list": r"retVal of InternetDownloadFile is \[12029",
           "answer": r"answer to the .* is lost. Error is \[12029",
           "plan": r"Download Zip file is not successful. retVal is \[12029",
           "status": r"Failed to post the data to server with error code \[12029"}


def log(text):
    print(f"servers: {text}", file=sys.stderr, flush=True)


class Call:
    """One connection of the agent, of whose bytes none is taken before take()."""

    def __init__(self, server, connection):
        self.server, self.connection, self.request, head = server, connection, None, b""
        while b"\r\n\r\n" not in head and (more := connection.recv(65536, socket.MSG_PEEK)) != head:
            head = more
        lines = head.partition(b"\r\n\r\n")[0].decode("latin-1").split("\r\n")
        self.head_size = len("\r\n".join(lines)) + 4
        self.method, self.target = (lines[0].split() + ["", ""])[:2]
        self.target = re.sub("^http://[^/]*", "", self.target)  # as a proxy is asked
        self.headers = {name.lower(): value.strip() for name, _, value in (line.partition(":") for line in lines[1:])}
        self.length = int(self.headers.get("content-length", 0))
        self.station = next((STATIONS[name] for name in STATIONS if name in self.target), None)
        if self.station == "list" and (self.method == "POST" or "action=" in self.target):
            self.station = "answer" if self.method == "POST" else "notice"

    def read(self, size, step=1 << 20, pause=0):
        body = bytearray()
        while len(body) < size:
            piece = self.connection.recv(min(step - len(body) % step, size - len(body)))
            if not piece:
                raise OSError("the agent broke off")
            body += piece
            if len(body) % step == 0:
                self.pause(pause)
        return bytes(body)

    def take(self, **how):
        """The whole request."""
        if self.request is None:
            self.read(self.head_size)
            self.request = Request(self.method, self.target, self.headers, self.read(self.length, **how))
        return self.request

    def truth(self):
        """Head and body of the honest answer, after what it does to the server; a list stays for the next question."""
        request, waiting = self.take(), list(self.server.requests)
        head, _, body = self.server.respond(request).partition(b"\r\n\r\n")
        self.server.requests = waiting
        body = body or b"" if self.station == "list" else body or b"thanks"
        return re.sub(rb"Content-Length: \d+", b"Content-Length: %d" % len(body), head), body

    def send(self, pieces, pause=0):
        for piece in pieces:
            self.connection.sendall(piece)
            self.pause(pause)

    def pause(self, seconds):
        """Of the fast clock."""
        if seconds:
            time.sleep(seconds / RATE)

    def wait(self):
        """Until the agent goes."""
        watch = select.poll()
        watch.register(self.connection, select.POLLRDHUP)
        watch.poll(20_000)

    def end(self):
        """Lets the agent have all that was sent."""
        self.connection.shutdown(socket.SHUT_WR)
        while self.connection.recv(65536):
            pass

    def reset(self):
        reset(self.connection)


class FaultyServer(Server):
    """`fault`, a row of FAULTS, strikes the `stations`. `struck` counts by station."""

    def __init__(self, host="127.0.0.1", port=0):
        self.stations, self.struck, self.closes_at_list, self.is_small, self.host = (), {}, False, False, host
        self.unsaid = set()  # FILENAMEs that it took, and did not say so
        super().__init__(port=port, host=host)

    def reopen(self, is_small=False):
        """A new listener; a small one leaves a large upload no room in the system's buffers."""
        if self.is_open:
            self.close()
        self.listener = socket.socket()
        self.listener.setsockopt(socket.SOL_SOCKET, socket.SO_REUSEADDR, 1)
        if is_small:
            self.listener.setsockopt(socket.SOL_SOCKET, socket.SO_RCVBUF, 1 << 17)
        self.listener.bind((self.host, self.port))
        self.listener.listen(512)
        self.is_open, self.is_small = True, is_small
        threading.Thread(target=self._accept, daemon=True).start()

    def _serve(self, connection):
        connection.settimeout(20)
        try:
            with connection:
                call, fault = Call(self, connection), self.fault
                if fault and call.station in self.stations and "/elsewhere" not in call.target:
                    with self.lock:
                        self.struck[call.station] = self.struck.get(call.station, 0) + 1
                    return fault[1](call)
                request = call.take()
                with self.lock:
                    self.seen.append((request.servlet, request.query))
                whole = self.respond(request)
                if self.closes_at_list and call.station == "list" and not whole.endswith(b"\r\n\r\n"):
                    self.close()
                connection.sendall(whole)
        except OSError:
            pass  # the agent went away

    def strike(self, fault, stations):
        self.struck, self.stations, self.fault = {}, stations, fault
        if "big" in fault[2:]:
            self.reopen(is_small=True)
        if fault[1] is None:
            self.closes_at_list = stations == LIST
            if not self.closes_at_list:
                self.close()

    def relent(self):
        self.fault, self.closes_at_list = None, False
        if not self.is_open or self.is_small:
            self.reopen()


def says(*pieces, pause=0, accepts=False, end=Call.end):
    """Takes the request, and sends these bytes in the place of an answer."""
    def routine(call):
        request = call.take()
        if accepts and call.station == "upload" and call.server.accept(request):
            call.server.unsaid.add(request.query["FILENAME"])
        call.send(pieces, pause)
        end(call)
    return routine


def status(code, *headers, body=b"", **how):
    return says(answer(code, body, headers, "Word"), **how)


def moves(code, to=None):
    """A redirect, by default to where the agent has been."""
    def routine(call):
        call.take()
        target = call.target if to is None else to.format(target=call.target, port=call.server.port)
        call.send([answer(code, b"", (("Location", target),) if target else (), "Moved")])
        call.end()
    return routine


def tells(change, pause=0, end=Call.end):
    """Does what was asked, and sends what change(head, body) makes of the honest answer."""
    def routine(call):
        call.send(change(*call.truth()), pause)
        end(call)
    return routine


def with_length(text):
    return tells(lambda head, body: [re.sub(rb"Content-Length: \d+", text(len(body)), head), b"\r\n\r\n", body])


def with_lines(*lines):
    return tells(lambda head, body: [b"\r\n".join([head, *lines]), b"\r\n\r\n", body])


def chunked(size=b"%x", end=b"0\r\n\r\n"):
    return tells(lambda head, body: [re.sub(rb"Content-Length: \d+", b"Transfer-Encoding: chunked", head), b"\r\n\r\n",
                                     (size % len(body) if b"%" in size else size), b"\r\n", body, b"\r\n", end])


def half(*pieces, end):
    """Takes half of a large upload before it sends these bytes; of anything else says the truth before such an end. A small
    one lies whole in the buffers of both systems, and nobody can tell that its second half was never read."""
    def routine(call):
        if call.station == "upload" and (call.length > 1 << 20 or not pieces):
            call.read(call.head_size + call.length // 2)
            call.send(pieces)
        elif pieces:
            call.send([b"\r\n\r\n".join(call.truth())])
        end(call)
    return routine


def unread(*pieces, end):
    def routine(call):
        call.send(pieces)
        end(call)
    return routine


def reads_slowly(call):
    call.take(step=max(call.length // 30, 100), pause=3)
    call.send([b"\r\n\r\n".join(call.truth())])


def answers_first(call):
    if call.station == "upload":
        call.send([answer()])
        call.server.accept(call.take())
    else:
        call.send([b"\r\n\r\n".join(call.truth())])
    call.end()


def forgets(call):
    """The lie: says that it has the records. They count as come zero times."""
    if call.station == "upload":
        call.server.accept(call.take(), times=0)
        call.send([answer()])
    else:
        call.send([b"\r\n\r\n".join(call.truth())])
    call.end()


def floods(call):
    size = 5 << 20 if call.station == "plan" else 70 << 20  # more than an answer into memory may have
    head, _ = call.truth()
    call.send([re.sub(rb"Content-Length: \d+", b"Content-Length: %d" % size, head), b"\r\n\r\n"])
    for _ in range(size >> 20):
        call.send([b"a\0" * (1 << 19)])
    call.end()


def of_another(call):
    call.truth()
    body = {"list": zip_of({"queryconf.txt": plan()}), "plan": '{ "RequestList": [ ] }'.encode("utf-16-le")}
    call.send([answer(body=body.get(call.station, b"PK\5\6"))])
    call.end()


OK = b"HTTP/1.1 200 OK\r\n"
CODES = (0, 199, 299, 304, 400, 401, 403, 404, 407, 408, 429, 500, 502, 503, 504, 511, 599, 999)

# Name, routine, and "big" if a large upload is to be on its way. A null routine is the closed listener.
FAULTS = (
    ("refuses connections", None),
    ("takes all and says nothing", says(end=Call.wait, accepts=True)),
    ("takes nothing and says nothing", unread(end=Call.wait)),
    ("ends the connection unread", unread(end=lambda call: call.connection.shutdown(socket.SHUT_WR))),
    ("resets at once", unread(end=Call.reset)),
    ("resets in its head", says(b"HTTP/1.1 20", end=Call.reset)),
    ("ends in its head", says(OK + b"Content-Le")),
    ("resets in its body", tells(lambda head, body: [head, b"\r\n\r\n", body[:len(body) // 2]], end=Call.reset)),
    ("takes all and resets", says(accepts=True, end=Call.reset)),
    ("takes all and ends", says(accepts=True)),
    ("takes all and says 500", status(500, accepts=True)),
    ("takes half and ends", half(end=Call.reset)),
    ("drips its head", says(*(b"%c" % byte for byte in OK * 4), pause=8, end=Call.reset)),
    ("drips its body", tells(lambda head, body: [head + b"\r\n\r\n", *(b"%c" % byte for byte in body[:40])], pause=8)),
    ("falls silent in its body", tells(lambda head, body: [head, b"\r\n\r\n", body[:3]], end=Call.wait)),
    ("100 and no more", says(b"HTTP/1.1 100 Continue\r\n\r\n")),
    ("100 without end", says(*[b"HTTP/1.1 100 Continue\r\n\r\n"] * 100, pause=1, end=Call.reset)),
    ("101", says(b"HTTP/1.1 101 Switching Protocols\r\nUpgrade: x\r\nConnection: upgrade\r\n\r\n", end=Call.wait)),
    ("204 with a body", says(b"HTTP/1.1 204 No Content\r\nContent-Length: 5\r\n\r\nhello")),
    ("301 to itself", moves(301)), ("307 to itself", moves(307)), ("308 to itself", moves(308)),
    ("302 without Location", moves(302, "")), ("307 without Location", moves(307, "")),
    ("302 elsewhere", moves(302, "/elsewhere{target}")), ("308 elsewhere", moves(308, "/elsewhere{target}")),
    ("307 to a closed port", moves(307, "http://127.0.0.1:1{target}")),
    ("301 to a file", moves(301, "file:///etc/passwd")), ("307 to garbage", moves(307, "http://[::1\x7f]:99999/\\..")),
    ("status line is garbage", says(b"GARBAGE\r\n\r\n")),
    ("mail server", says(b"220 mail ready\r\n")),
    ("HTTP/0.9", says(b"<html>It works!</html>")),
    ("HTTP/2 preface", says(b"\0\0\x12\4\0\0\0\0\0\0\3\0\0\0\x64\0\4\0\x40\0\0\0\2\0\0\0\0")),
    ("TLS on plain", says(b"\x15\3\3\0\2\2\x28")),
    ("zeros", says(bytes(70_000))),
    ("zeros in a header", with_lines(b"X: a\0b")),
    ("header without colon", with_lines(b"what is this")),
    ("megabytes of headers", with_lines(*[b"X-Filler: " + b"f" * 1000] * 4000)),
    ("Content-Length too large", with_length(lambda size: b"Content-Length: %d" % (size + 1000))),
    ("Content-Length too small", with_length(lambda size: b"Content-Length: %d" % (size // 2))),
    ("Content-Length negative", with_length(lambda size: b"Content-Length: -5")),
    ("two Content-Lengths", with_length(lambda size: b"Content-Length: %d\r\nContent-Length: 3" % size)),
    ("Content-Length 2^64", with_length(lambda size: b"Content-Length: 18446744073709551616")),
    ("chunks", chunked()), ("chunks that are broken", chunked(size=b"zz")),
    ("chunks without end", chunked(end=b"5\r\nab")),
    ("gzip marked, but plain", with_lines(b"Content-Encoding: gzip")),
    ("two answers", tells(lambda head, body: [head, b"\r\n\r\n", body, answer(500)])),
    ("answer of another servlet", of_another),
    ("a very large body", floods),
    ("forgets what it took", forgets),
    *((f"status {code}", status(code, ("Retry-After", 5))) for code in CODES),
    ("reads slowly", reads_slowly, "big"),
    ("never reads", unread(end=Call.wait), "big"),
    ("takes half and resets", half(end=Call.reset), "big"),
    ("takes half, says 413", half(answer(413), end=Call.wait), "big"),
    ("takes half, says 200, resets", half(answer(), end=lambda call: (call.pause(20), call.reset())), "big"),
    ("says 200, then takes all", answers_first, "big"),
)


class Drill:
    def __init__(self, folder, seed, is_proxy=False):
        self.server = FaultyServer()
        self.agent = Agent(folder, self.server.port, RATE)
        if is_proxy:  # the addresses lead nowhere
            self.agent.store({"": {"ProxyEnabled": "yes", "ProxyServerName": f"127.0.0.1:{self.server.port}"},
                              "ServerInfo": {"KVServerName": "cs.example", "KVServerIPAddress": "203.0.113.1",
                                             "KVLastAccessName": "203.0.113.1"}})
        self.agent.write_script("big.sh", BIG)
        self.seed, self.random, self.number, self.doing = seed, random.Random(seed), 0, "the start"
        self.plans = [plan(workflow("Ids", [script("Id")]))]  # that it may have
        self.recoveries, self.usages, self.strikes = [], [], 0

    def broken(self, text):
        return Broken(f"{self.doing}: {text} (seed {self.seed}); the log ends:\n{self.agent.log()[-1500:]}")

    def wait(self, seconds=BOUND, **conditions):
        """Until each has held once. Seconds of the fast clock that it took; those that a busy machine takes do not count
        towards the limit."""
        begin, counted, turn = self.agent.control.wall(), 0, time.monotonic()
        while conditions := {what: condition for what, condition in conditions.items() if not condition()}:
            if not self.agent.is_running():
                raise self.broken(f"the agent ended with {self.agent.process.returncode}, before: {', '.join(conditions)}")
            if counted * RATE > seconds:
                raise self.broken(f"did not come in {seconds} virtual seconds: {', '.join(conditions)}")
            time.sleep(0.01)
            share = 1 / max(1, os.getloadavg()[0] / os.cpu_count())
            counted, turn = counted + min(time.monotonic() - turn, 0.03) * share, time.monotonic()
        return self.agent.control.wall() - begin

    def start(self):
        self.agent.start(as_service=True)
        is_up = threading.Event()
        def listen(manager):  # a manager that does not read holds up the agent
            try:
                while manager.recv(4096):
                    is_up.set()
            except OSError:
                pass
        threading.Thread(target=listen, args=(self.agent.manager,), daemon=True).start()
        if not is_up.wait(30):  # before that SIGTERM ends it at once
            raise self.broken("the agent did not come up")

    def order(self, *kinds):
        """Requests with new numbers; their ids."""
        made = []
        for kind in kinds:
            self.number += 1
            one = {"REQUEST_TYPE": kind, "AGENT_REQUEST_ID": str(self.number)}
            if kind == "TEST_MONITOR":
                one |= {"MONITOR_NAME": "Asked", "WMIQUERY": "SELECT Name FROM Win32_ComputerSystem", "RESPONSE_NEEDED": "YES"}
            else:
                self.plans.append(plan(workflow(f"Plan {self.number}", [script(f"Id{self.number}")])))
                one |= {"AGENT_KEY": self.server.key, "DOWNLOAD_URL": self.server.offer_plan(self.plans[-1])}
            made.append(one)
        self.agent.ask(self.server, *made)
        return [one["AGENT_REQUEST_ID"] for one in made]

    def has_plan(self, *plans):
        path = self.agent.monitoring / "conf/queryconf.txt"
        return path.exists() and path.read_bytes() in plans

    def is_answered(self, number):
        return any(query.get("requestId") == number for query, _ in list(self.server.answers))

    def has_struck(self, stations):
        if self.server.fault[1] is None:
            text = self.agent.log()
            self.server.struck = {station: len(re.findall(REFUSED[station], text)) for station in stations if station in REFUSED}
            return all(self.server.struck.get(station) for station in stations if station in REFUSED)
        return all(self.server.struck.get(station) for station in stations)

    def relent(self):
        self.strikes += sum(self.server.struck.values())
        self.server.relent()

    def uploads_go_on(self):
        """Waits until a new zip has been accepted and none of the present ones waits."""
        accepted, waiting = sum(self.server.zips.values()), list(self.agent.zipdata.glob("*.zip"))
        return lambda: sum(self.server.zips.values()) > accepted and not any(path.exists() for path in waiting)

    def usage(self):
        """Megabytes of memory, descriptors and threads of the agent."""
        process = pathlib.Path(f"/proc/{self.agent.process.pid}")
        megabytes = int(re.search(r"VmRSS:\s+(\d+)", (process / "status").read_text())[1]) / 1024
        return megabytes, *(len(list((process / folder).iterdir())) for folder in ("fd", "task"))

    def is_back(self):
        """Whether it has given back what a fault took; the first run is with an honest server."""
        used = self.usage()
        if not self.usages:
            samples = [self.usage() for _ in range(30) if time.sleep(0.01) is None]
            self.usages.append(tuple(map(min, zip(*samples))))
        is_back = all(now <= first + more for now, first, more in zip(used, self.usages[0], (16, 1, 0)))
        if is_back:
            self.usages.append(used)
        return is_back

    def is_idle(self):
        """Whether no list is served or waits."""
        return [self.agent.setting("Monitoring", name) for name in ("RequestID", "RequestAvailable")] == ["NONE", "NO"]

    def meet(self, fault):
        """One run of the agent with one fault."""
        self.doing = fault[0]
        big = [workflow("Big", [script("Big", "big.sh")], interval=600)] if "big" in fault[2:] else []
        self.plans = [plan(workflow("Ids", [script("Id")]), *big)]
        self.agent.write_plan(self.plans[0])
        for path in (self.agent.monitoring / "logs").glob("*.log"):
            path.unlink()
        asked, = self.order("TEST_MONITOR")
        self.server.strike(fault, START)
        self.start()
        self.wait(2 * BOUND, strikes=lambda: self.has_struck(START))
        goes_on = self.uploads_go_on()
        self.relent()
        self.recoveries.append(self.wait(upload=goes_on, answer=lambda: self.is_answered(asked),
                                         registration=lambda: "Registered with agent key" in self.agent.log()))
        self.meet_list(fault)
        self.meet_stop(fault)

    def meet_list(self, fault):
        self.wait(idleness=self.is_idle)
        self.server.strike(fault, LIST)
        self.order("TEST_MONITOR", "DOWNLOAD_QUERYCONF")
        self.wait(2 * BOUND, strikes=lambda: self.has_struck(LIST), notice=lambda: "got queryconf" in self.agent.log())
        if not self.has_plan(*self.plans):
            raise self.broken("the plan is neither old nor new")
        self.relent()
        recovery = self.wait(idleness=self.is_idle)
        asked, _ = self.order("TEST_MONITOR", "DOWNLOAD_QUERYCONF")
        self.recoveries.append(recovery + self.wait(upload=self.uploads_go_on(), answer=lambda: self.is_answered(asked),
                                                    plan=lambda: self.has_plan(self.plans[-1])))
        self.wait(memory_descriptors_threads=self.is_back)

    def meet_stop(self, fault):
        self.server.strike(fault, STOP)
        for _ in range(5):  # the agent waits for 20 seconds of the fast clock, in which a busy machine may not hear of it
            self.stop()
            if self.has_struck(STOP):
                self.relent()
                return self.vouch(self.agent.vouch)
            self.start()
            self.agent.virtual(MINUTE)
        raise self.broken("no report of a stop came")

    def stop(self):
        if (code := self.agent.stop()) != 0:
            raise self.broken(f"the agent stopped with {code}")

    def vouch(self, way):
        """Sees that nothing is lost; what way() tells."""
        try:
            told = way(self.server)
        except Broken as failure:
            raise self.broken(str(failure)) from failure
        if once := [name for name in self.server.unsaid if self.server.zips[name] < 2]:
            raise self.broken(f"{once[0]} was taken without an answer, and did not come again")
        if self.agent.setting("Monitoring", "MonitoringAgentKey") != self.server.key:
            raise self.broken("the agent's key has changed")
        return told

    def act(self):
        """Something that happens while a server is as it is."""
        action = self.random.choices(("nothing", "TEST_MONITOR", "DOWNLOAD_QUERYCONF", "kill", "stop"), (8, 4, 4, 2, 1))[0]
        if action == "kill":
            self.agent.kill()
        elif action == "stop":
            self.stop()
        elif action != "nothing":
            self.order(action)
        if not self.agent.is_running():
            self.start()

    def walk(self, seconds):
        """Every few minutes another fault at some servlets or all, or an honest server; how many phases there were."""
        all_stations, phases = [*START, *LIST, *STOP], 0
        self.agent.store({"Monitoring": {"DataCollectionTimeout": 20}})  # so that collection stops, and goes on
        self.plans = [plan(workflow("Ids", [script("Id")]), workflow("Big", [script("Big", "big.sh")], interval=60))]
        self.agent.write_plan(self.plans[0])
        self.start()
        begin = self.agent.control.wall()
        while (passed := self.agent.control.wall() - begin) < seconds:
            phases += 1
            is_honest = self.random.random() < 0.3
            fault, some = self.random.choice(FAULTS), self.random.sample(all_stations, self.random.randint(1, 3))
            self.doing = f"the walk, minute {passed / MINUTE:.0f}, {'honest' if is_honest else fault[0]}"
            if not is_honest:
                self.server.strike(fault, some if self.random.random() < 0.5 else all_stations)
            self.act()
            self.agent.virtual(self.random.uniform(1, 6) * MINUTE)
            if not self.agent.is_running():
                raise self.broken("the agent has ended")
            self.relent()
            if is_honest:
                self.recoveries.append(self.wait(upload=self.uploads_go_on(), plan=lambda: self.has_plan(*self.plans)))
        self.end_walk()
        return phases

    def end_walk(self):
        self.doing = "the end of the walk"
        self.wait(idleness=self.is_idle)
        asked, _ = self.order("TEST_MONITOR", "DOWNLOAD_QUERYCONF")
        self.wait(upload=self.uploads_go_on(), answer=lambda: self.is_answered(asked),
                  plan=lambda: self.has_plan(self.plans[-1]), memory_descriptors_threads=self.is_back)


def see_forgotten(drill):
    """How many records the lying server forgot; the oath must miss each of them."""
    honest = {name: arrived for name, copies in drill.server.records.items()
              if (arrived := {digest: count for digest, count in copies.items() if count})}
    forgotten = len(drill.server.records) - len(honest)
    try:
        drill.agent.vouch(types.SimpleNamespace(records=honest))
    except Broken:
        return forgotten
    raise drill.broken(f"the server forgot {forgotten} records, and the oath did not miss one")


# Of three addresses: how the server is there, who accepts an upload, and who is asked for nothing. Then all are honest,
# and who accepts then.
ADDRESSES = (
    (("503", "honest", "honest"), None, (1, 2), 0),
    (("shut", "honest", "honest"), 1, (2,), 1),
    (("shut", "503", "honest"), 2, (), 2),
    (("shut", "shut", "503"), None, (), None),  # any: a request may be on its way past the first one
)


def try_addresses(folder, seed, rows):
    servers = [FaultyServer()]
    servers += [FaultyServer(f"127.0.0.{number}", servers[0].port) for number in (2, 3)]
    for server in servers:  # they are one
        server.records, server.zips = servers[0].records, servers[0].zips
    agent = Agent(folder, servers[0].port, RATE, settings={
        "ServerInfo": {"KVServerIPAddress": "127.0.0.2", "KVServerSecIPAddress": "127.0.0.3"}})
    def uploads():
        return [server.count("FileCollector") for server in servers]
    def asked():
        return [len(server.seen) + sum(server.struck.values()) for server in servers]
    try:
        for states, accepts, silent, later in rows:
            agent.write_plan(plan(workflow("Ids", [script("Id")])))
            for server, state in zip(servers, states):
                server.struck = {}
                if state != "honest":
                    server.strike(("", status(503) if state == "503" else None), START)
            uploads_before, asked_before = uploads(), asked()
            agent.start()
            agent.virtual(4 * MINUTE)
            accepted = [number for number in range(3) if uploads()[number] > uploads_before[number]]
            wrong = [number for number in silent if asked()[number] > asked_before[number]]
            for server in servers:
                server.relent()
            agent.virtual(30)  # a pass that was on its way ends
            uploads_before = uploads()
            agent.until(lambda: sum(uploads()) > sum(uploads_before), 10, "an upload")
            accepted_later = [number for number in range(3) if uploads()[number] > uploads_before[number]]
            agent.kill()
            if accepted != ([] if accepts is None else [accepts]) or wrong or later not in (None, *accepted_later):
                raise Broken(f"addresses {states}: accepted by {accepted}, then {accepted_later}, wrongly asked {wrong} "
                             f"(seed {seed})")
        return settle(agent, servers[0])
    finally:
        agent.remove()


PROXY = ("refuses connections", "takes nothing and says nothing", "takes all and resets", "status line is garbage",
         "megabytes of headers", "status 407", "status 502", "status 504")


def try_proxy(folder, seed, quick):
    """The same behind a proxy, which is struck in the place of the server; how often."""
    drill = Drill(folder, seed, is_proxy=True)
    try:
        for fault in (row for row in FAULTS if row[0] in PROXY[:2 if quick else len(PROXY)]):
            drill.meet(fault)
        drill.vouch(lambda server: settle(drill.agent, server))
        return drill.strikes
    finally:
        drill.agent.remove()


def run(seed, quick, folder):
    folder = pathlib.Path(folder)
    drill = Drill(folder / "servers", seed)
    honest = ("an honest server", tells(lambda head, body: [head, b"\r\n\r\n", body]))
    lie = next(row for row in FAULTS if row[1] is forgets)
    chosen = [*drill.random.sample(FAULTS, 3), lie] if quick else FAULTS
    orders = ADDRESSES[1:2] if quick else ADDRESSES
    try:
        for number, fault in enumerate([honest, *chosen]):
            drill.meet(fault)
            if number % 20 == 19:
                log(f"{number} of {len(chosen)} faults")
        single, walk = drill.strikes, WALK / 20 if quick else WALK
        log("the walk")
        phases = drill.walk(walk)
        stops = drill.agent.log().count("stopping datacollection")
        records, twice = drill.vouch(lambda server: settle(drill.agent, server))
        forgotten = see_forgotten(drill)
        log("the proxy and the addresses")
        by_proxy = try_proxy(folder / "proxy", seed, quick)
        try_addresses(folder / "addresses", seed, orders)
        memory = [used[0] for used in drill.usages]
        return {"title": "Servers", "lines": [
            f"{len(chosen)} faults at seven kinds of request struck {single} times, and a walk of {phases} phases over "
            f"{walk / MINUTE:.0f} virtual minutes {drill.strikes - single} times; collection stopped {stops} times as uploads "
            f"failed, and went on.",
            f"{records} complete records: none lost, {twice} came twice; {len(drill.server.unsaid)} zips that were taken "
            f"without an answer came again. Not the agent's: {forgotten} records that a lying server accepted and forgot.",
            f"From an honest server to an agent that registers, uploads, answers and takes a plan: "
            f"{statistics.median(drill.recoveries):.0f} virtual seconds in the middle, {max(drill.recoveries):.0f} at most "
            f"(bound: {BOUND}).",
            f"Memory after a fault: {memory[0]:.0f} MB with an honest server, {max(memory):.0f} MB at most; descriptors and "
            f"threads came back to {drill.usages[0][1]} and {drill.usages[0][2]}.",
            f"Three addresses were asked in their order in {len(orders)} states; a proxy struck {by_proxy} times, and nothing was lost.",
        ]}
    finally:
        drill.agent.remove()
