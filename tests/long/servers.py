"""Each kind of request meets each fault of a server; then a random walk over all of them.

A fault strikes a start, a list of requests and a stop. After each the server is honest again, and the agent has BOUND for each
thing that it owes. The drill fails, too, if a fault did not strike a kind of request.
"""

import collections
import random
import re
import select
import statistics
import sys
import time

from agent import Agent, Broken, during, plan, script, workflow
from server import AGENT_KEY, Request, answer, download, test_monitor, zipped

RATE = 120
BOUND = 600  # seconds of the fast clock from an honest server to an agent that is well
MINUTE = 60
WALK = 6 * 60 * MINUTE
LARGE = 1 << 20  # bytes of an upload; the buffers of both systems have no room for half of it
START, LIST, STOP = ("register", "upload", "list"), ("answer", "plan", "notice"), ("status",)


def wait(request):
    """Until the agent goes."""
    watch = select.poll()
    watch.register(request.connection, select.POLLRDHUP)
    watch.poll(20_000)


def sends(*pieces, pause=0, accepts=False, end=Request.end):
    """Takes the request, and sends these bytes in the place of an answer."""
    def fault(request):
        if request.body and accepts and request.kind == "upload":
            request.server.accept(request)
        request.send(*pieces, pause=pause / RATE)
        end(request)
    return fault


def frames(fields="Content-Length: {0}", before="", after="", pause=0, end=Request.end):
    """Does what was asked, and sends the honest answer with these fields in the place of its length, and around its body
    these texts. {0} is the length, {1} half of it."""
    def fault(request):
        waiting = list(request.server.requests)
        head, _, body = request.server.respond(request).partition(b"\r\n\r\n")
        request.server.requests = waiting  # a list stays for the next question
        body = body or (b"" if request.kind == "list" else b"thanks")
        length, start, rest = (text.format(len(body), len(body) // 2).encode() for text in (fields, before, after))
        head = re.sub(rb"Content-Length: \d+", lambda _: length, head) + b"\r\n\r\n"
        drops = [body] if not pause else [b"%c" % byte for byte in body[:40]]
        request.send(head + start, *drops, rest, pause=pause / RATE)
        end(request)
    return fault


honest = frames()


def moves(code, to="{0.target}"):
    """A redirect, by default to where the agent has been."""
    return lambda request: sends(answer(code, headers=[("Location", to.format(request))]))(request)


def for_large(fault):
    """A fault of large uploads; anything else is told the truth. Of a small upload nobody can tell that it was not read."""
    return lambda request: fault(request) if request.left > LARGE else honest(request)


def half(*pieces, wait_before=0, end):
    """Takes half of an upload, and sends these bytes."""
    def fault(request):
        request.take(request.left // 2)
        request.send(*pieces, pause=wait_before / RATE)
        end(request)
    return for_large(fault)


def refuses(request):
    """From this request on."""
    request.server.close()
    request.reset()


def reads_slowly(request):
    while request.left:
        request.take(40_000)
        time.sleep(3 / RATE)
    honest(request)


def answers_early(request):
    request.send(answer())
    request.server.accept(request)
    request.end()


OK = b"HTTP/1.1 200 OK\r\n"
CHUNKED = "Transfer-Encoding: chunked"
CODES = (0, 199, 299, 302, 304, 307, 400, 401, 403, 404, 407, 408, 429, 500, 502, 503, 504, 511, 599, 999)

FAULTS = {
    "refuses connections": refuses,
    "takes all and says nothing": sends(end=wait, accepts=True),
    "takes nothing and says nothing": wait,
    "resets at once": Request.reset,
    "ends in its head": sends(OK + b"Content-Le"),
    "resets in its body": frames("Content-Length: {0}000", end=Request.reset),
    "takes all and resets": sends(accepts=True, end=Request.reset),
    "takes all and says 500": sends(answer(500), accepts=True),
    "drips its head": sends(*(b"%c" % byte for byte in OK * 4), pause=8, end=Request.reset),
    "drips its body": frames(pause=8),
    "falls silent in its body": frames("Content-Length: {0}000", end=wait),
    "100 without end": sends(*[b"HTTP/1.1 100 Continue\r\n\r\n"] * 100, pause=1, end=Request.reset),
    "101": sends(b"HTTP/1.1 101 Switching Protocols\r\nUpgrade: x\r\nConnection: upgrade\r\n\r\n", end=wait),
    "204 with a body": sends(b"HTTP/1.1 204 No Content\r\nContent-Length: 5\r\n\r\nhello"),
    "301 to itself": moves(301), "307 to itself": moves(307), "308 to itself": moves(308),
    "302 elsewhere": moves(302, "/elsewhere{0.target}"), "308 elsewhere": moves(308, "/elsewhere{0.target}"),
    "307 to a closed port": moves(307, "http://127.0.0.1:1{0.target}"),
    "301 to a file": moves(301, "file:///etc/passwd"), "307 to garbage": moves(307, "http://[::1\x7f]:99999/\\.."),
    "garbage": sends(b"GARBAGE\r\n\r\n"), "zeros": sends(bytes(70_000)), "mail server": sends(b"220 mail ready\r\n"),
    "HTTP/0.9": sends(b"<html>It works!</html>"), "TLS on plain": sends(b"\x15\3\3\0\2\2\x28"),
    "zeros in a header": frames("Content-Length: {0}\r\nX: a\0b"),
    "a key that climbs": frames("AgentKey: ../../x\r\nContent-Length: {0}"),
    "a time too large": frames("timeDiff: 99999999999\r\nSNMPTimeout: -1\r\nContent-Length: {0}"),
    "megabytes of headers": frames("Content-Length: {0}" + ("\r\nX-Filler: " + "f" * 1000) * 4000),
    "Content-Length too large": frames("Content-Length: {0}000"), "Content-Length too small": frames("Content-Length: {1}"),
    "Content-Length negative": frames("Content-Length: -5"),
    "two Content-Lengths": frames("Content-Length: {0}\r\nContent-Length: 3"),
    "chunks": frames(CHUNKED, "{0:x}\r\n", "\r\n0\r\n\r\n"), "chunks that are broken": frames(CHUNKED, "zz\r\n"),
    "chunks without end": frames(CHUNKED, "{0:x}\r\n", "\r\n5\r\nab"),
    "two answers": frames(after="HTTP/1.1 500 Error\r\n\r\n"),
    "a zip, whatever was asked": sends(answer(body=zipped({"x": b""})), accepts=True),
    "70 MB, whatever was asked": sends(OK + b"Content-Length: 73400320\r\n\r\n", *[b"a\0" * (1 << 19)] * 70, accepts=True),
    "large: read slowly": for_large(reads_slowly), "large: never read": for_large(wait),
    "large: half read and reset": half(end=Request.reset), "large: half read, then 413": half(answer(413), end=wait),
    "large: half read, then 200 and reset": half(answer(), wait_before=20, end=Request.reset),
    "large: 200, then read": for_large(answers_early),
    **{f"status {code}": sends(answer(code, headers=[("Retry-After", 5)])) for code in CODES},
}


class Target(Agent):
    """An agent, and what its server does to it."""

    def __init__(self, folder, seed):
        super().__init__(folder, RATE)
        self.write_script("big.sh", "head -c 1200000 /dev/urandom | base64 -w0")
        self.random, self.number = random.Random(seed), 0
        self.strikes, self.recoveries, self.usages = collections.Counter(), [], []

    def see(self, condition, what, bound=BOUND):
        return self.until(condition, what, bound / RATE)

    def order(self, *kinds):
        """Requests of these kinds; what tells whether the test has its answer."""
        self.number += 1
        requests = [test_monitor(self.number)] if "test" in kinds else []
        if "plan" in kinds:
            self.plans.append(plan(workflow(f"Plan {self.number}", [script(f"Id{self.number}")])))
            requests.append(download(self.server.offer_plan(self.plans[-1]), self.number))
        self.ask(*requests)
        return lambda number=str(self.number): number in self.server.answered

    def strike(self, fault, kinds):
        """The fault from now on; what tells whether it has struck each kind."""
        struck, refusals = collections.Counter(), self.log().count("12029")

        def strikes(request):
            if request.kind not in kinds or "/elsewhere" in request.target:
                return False
            with self.server.lock:
                for counter in (struck, self.strikes):
                    counter.update([request.kind, *["large"] * (request.left > LARGE)])
            fault(request)
            return True

        self.server.fault = strikes
        return lambda: set(kinds) <= struck.keys() or (not self.server.is_open and self.log().count("12029") > refusals + 2)

    def relent(self):
        self.server.fault = None
        if not self.server.is_open:
            self.server.open()

    def recover(self, **conditions):
        """On an honest server: new uploads are accepted, none of the old ones waits, and what else is given comes true."""
        uploads, old = self.server.uploads, list(self.zipdata.glob("*.zip"))
        self.relent()
        conditions["uploads"] = lambda: self.server.uploads > uploads and not any(path.exists() for path in old)
        self.recoveries.append(sum(self.see(condition, what) for what, condition in conditions.items()))

    def serve_all(self):
        """Sees it well: a list is answered, its plan taken, and what a fault took is given back."""
        self.see(self.is_idle, "the end of a list")
        self.recover(answer=self.order("test", "plan"), plan=lambda: self.plan() == self.plans[-1])
        self.usages = self.usages or [self.least_usage()]  # with an honest server
        self.gives_back(self.usages[0])
        self.usages.append(self.usage())

    def is_idle(self):
        """Whether no list is served or waits."""
        return [self.setting("Monitoring", name) for name in ("RequestID", "RequestAvailable")] == ["NONE", "NO"]

    def meet(self, name, fault):
        """One run with one fault."""
        large = ["large"] * name.startswith("large")
        self.write_plan(plan(workflow("Ids", [script("Id")]), *[workflow("Big", [script("Big", "big.sh")], 600)] * len(large)))
        for path in self.monitoring.glob("logs/*.log"):
            path.unlink()
        is_answered, has_struck = self.order("test"), self.strike(fault, (*START, *large))
        self.start()
        self.see(has_struck, "a strike at each request of the start", 2 * BOUND)
        self.recover(answer=is_answered, registration=lambda: "Registered with agent key" in self.log())
        self.see(self.is_idle, "the end of the first list")
        has_struck, _ = self.strike(fault, LIST), self.order("test", "plan")
        self.see(has_struck, "a strike at each request of a list", 2 * BOUND)
        self.see(lambda: "got queryconf" in self.log(), "the end of the plan's download", 2 * BOUND)
        self.check_plan()
        self.relent()
        self.serve_all()
        self.meet_stop(fault)
        self.vouch()
        if (key := self.setting("Monitoring", "MonitoringAgentKey")) != AGENT_KEY:
            raise Broken(f"the agent's key is {key}")

    def meet_stop(self, fault):
        has_struck = self.strike(fault, STOP)
        for _ in range(5):  # the agent waits for 20 seconds of the fast clock, in which a busy machine may not hear of it
            self.stop()
            if has_struck():
                return self.relent()
            self.start()
            self.virtual(MINUTE)
        raise Broken("no report of a stop came")

    def act(self):
        """Something that happens while a server is as it is."""
        action = self.random.choices(("nothing", "test", "plan", "kill", "stop"), (8, 4, 4, 2, 1))[0]
        if action in ("kill", "stop"):
            getattr(self, action)()
            self.start()
        elif action != "nothing":
            self.order(action)

    def walk(self, seconds):
        """Every few minutes another fault at some requests or all, or an honest server; how many phases there were."""
        phases, kinds = 0, [*START, *LIST, *STOP]
        self.store({"Monitoring": {"DataCollectionTimeout": 20}})  # so that collection stops, and goes on
        self.write_plan(plan(workflow("Ids", [script("Id")]), workflow("Big", [script("Big", "big.sh")], 60)))
        self.start()
        end = self.control.wall() + seconds
        while (left := end - self.control.wall()) > 0:
            phases += 1
            name = self.random.choice(("honest", *FAULTS) if self.random.random() < 0.7 else ("honest",))
            some = self.random.sample(kinds, self.random.choice((1, 2, 3, 7, 7, 7)))
            with during(lambda: f"the walk, {left / MINUTE:.0f} minutes before its end, {name}"):
                if name != "honest":
                    self.strike(FAULTS[name], some)
                self.act()
                self.virtual(self.random.uniform(1, 6) * MINUTE)
                self.relent()
                self.check_plan()
                if name == "honest":
                    self.recover()
        self.serve_all()
        return phases


def run(seed, quick, folder):
    target, walk = Target(folder / "servers", seed), WALK / 20 if quick else WALK
    chosen = target.random.sample(list(FAULTS), 4 if quick else len(FAULTS))
    target.meet("an honest server", honest)
    for number, name in enumerate(chosen, 1):
        with during(lambda: name):
            target.meet(name, FAULTS[name])
        if number % 20 == 0:
            print(f"servers: {number} of {len(chosen)} faults", file=sys.stderr)
    single = target.strikes.total()
    phases = target.walk(walk)
    walked, stops = target.strikes.total() - single, target.log().count("stopping datacollection")
    totals, memory = target.settle(), [used[0] for used in target.usages]
    return [
        f"{len(chosen)} faults at seven kinds of request struck {single} times, a walk of {phases} phases over "
        f"{walk / MINUTE:.0f} virtual minutes {walked} times; {stops} times collection stopped, and went on.",
        f"{totals['records']} complete records: none lost, {totals['twice']} came twice.",
        f"From an honest server to uploads, an answer and a plan: {statistics.median(target.recoveries):.0f} virtual seconds "
        f"in the middle, {max(target.recoveries):.0f} at most (bound: {BOUND} for each, on a machine of its own).",
        f"Memory after a fault: {memory[0]:.0f} MB with an honest server, {max(memory):.0f} MB at most; descriptors and "
        f"threads came back to {target.usages[0][1]} and {target.usages[0][2]}."]
