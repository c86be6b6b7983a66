"""Hostile archives, plans, lists of requests, answers and datagrams to an unchanged agent, in a tree of other files of which
nothing may change. After each batch the agent collects and uploads, and has given back what the batch took."""

import functools
import hashlib
import os
import pathlib
import random
import re
import socket
import sys
import time

import hostile_device
import hostile_inputs as inputs
from agent import Agent, Broken, plan, script, settle, workflow
from server import Server, answer

PEAK, KEPT = 512, 16  # MiB that the agent may reach, and that may stay with it after a batch
LOGS = 64_000_000     # bytes of all its logs
SLAVES = [f"S{number}" for number in range(1, 6)]
ELSEWHERE = [pathlib.Path(place) / inputs.MARK for place in ("/", "/tmp", "/dev/shm")]

# What comes and goes in the agent's folder, and in the registry.
OWN = re.compile(r"agent/(state/registry\.db(-wal|-shm)?|monitoring/(bin/agent\.lock|bin/(data|zipdata)(/.+)?|"
                 r"conf/queryconf\.txt|conf/(backup|slaves)(/[^/]+(/queryconf\.txt)?)?|conf/backup/queryconf\.txt|"
                 r"conf/download(/(queryconf\.(zip|txt(\.refused)?)|RequestList\.txt(\.tmp)?))?|"
                 r"logs(/(agent\d*\.log|status\.json(\.tmp)?))?))")
OWN_VALUES = re.compile(r'"(RequestAvailable|RequestID|MALastCreated\w+|KVLastAccessName)"=')


class World:
    """The agent, its server, and the files around them."""

    def __init__(self, folder, seed, rate=120):
        self.seed, self.broken, self.input, self.peaks = seed, None, "the start", {}
        self.root = pathlib.Path(folder) / "world"
        self.server = Server()
        self.other_server = socket.create_server(("127.0.0.1", 0))
        self.other_server.setblocking(False)
        self.agent = Agent(self.root / "opt/kestrova", self.server.port, rate)
        self.agent.environment["HOME"] = str(self.root / "home")
        self.agent.run("kvreg", "set", r"Software\Other", "Value", "theirs")
        here, tree = "opt/kestrova", "opt/kestrova/agent/monitoring"
        secret = plan(workflow("secret", [script("secret")]))
        for name, content in {"home/.profile": b"", "home/.ssh/authorized_keys": b"", "etc/passwd": b"", "etc/cron.d/job": b"",
                              "etc/plan": secret, "etc/plan.zip": inputs.archive(inputs.Member("queryconf.txt", secret)),
                              "opt/other/tool": f"#!/bin/sh\ntouch {self.root}/{inputs.MARK}\n".encode(),
                              f"{here}/queryconf.txt": b"", f"{here}/output": b"", f"{tree}/bin/MonitoringAgent": b"",
                              f"{here}/agent2/monitoring/conf/queryconf.txt": b"", f"{tree}/conf/notes.txt": b""}.items():
            (self.root / name).parent.mkdir(parents=True, exist_ok=True)
            (self.root / name).write_bytes(content)
        (self.root / "opt/other/tool").chmod(0o755)
        (self.root / "link").symlink_to("etc")
        self.offered = {}  # plan -> its number
        self.agent.write_plan(self.new_plan())
        self.files, self.values = self.look(), self.registry()

    def close(self):
        self.agent.kill()
        self.server.close()
        self.other_server.close()

    def new_plan(self, content=None):
        """The bytes of a plan that the agent may use: the given ones, or others than ever before."""
        content = content or plan(workflow(f"steady {len(self.offered)}", [script("steady")]))
        self.offered[content] = len(self.offered)
        return content

    def look(self):
        """Each file and folder that nobody changes -> what it is."""
        found = {}
        for folder, folders, files in os.walk(self.root):
            for path in (os.path.join(folder, name) for name in (*folders, *files)):
                name = os.path.relpath(path, self.agent.folder)
                if name.split("/")[0] in ("witness", "control", "output") or OWN.fullmatch(name):
                    continue
                status, is_file = os.lstat(path), os.path.isfile(path)
                found[path] = (status.st_mode, status.st_mtime_ns if is_file or not name.startswith("agent/") else 0,
                               hashlib.sha256(pathlib.Path(path).read_bytes()).hexdigest() if is_file else "")
        return found

    def registry(self):
        """What the registry holds beside the agent's own values."""
        file = self.agent.witness / "registry"
        self.agent.run("kvreg", "export", str(file))
        text = file.read_bytes().decode("utf-16")
        file.unlink()
        return [line for line in text.splitlines() if not OWN_VALUES.match(line)]

    def fail(self, words):
        raise Broken(f"hostile input, seed {self.seed}: after {self.input}: {words}")

    def check(self):
        """The agent runs, and nothing has changed that is not its own. The server's threads call it between two inputs."""
        if not self.agent.is_running():
            self.fail(f"the agent ended with {self.agent.process.returncode}: {self.agent.log()[-1000:]}")
        files = self.look()
        for path in sorted(files.keys() | self.files.keys()):
            if files.get(path) != self.files.get(path):
                self.fail(f"{path} was {self.files.get(path, 'absent')} and is {files.get(path, 'absent')}")
        try:
            sizes = {entry.name: entry.stat().st_size for entry in os.scandir(self.agent.monitoring / "logs")}
        except FileNotFoundError:
            sizes = {}  # one was renamed meanwhile
        if sum(sizes.values()) > LOGS or sizes.get("status.json", 0) > 20_000:
            self.fail(f"the logs grow: {sizes}")
        for path in ELSEWHERE:
            if path.exists():
                path.unlink()
                self.fail(f"{path} was made")
        try:
            self.other_server.accept()
            self.fail("another server was asked")
        except BlockingIOError:
            pass

    def plan_of(self, key):
        """The bytes of a plan in use, empty for an absent one."""
        file = self.agent.monitoring / "conf" / ("" if key == "LONG1" else f"slaves/{key}") / "queryconf.txt"
        return file.read_bytes() if file.is_file() else b""

    def check_plan(self, *expected):
        """The plan in use is one of those, or one of all that were offered; its bytes."""
        content = self.plan_of("LONG1")
        if content not in (expected or self.offered):
            wanted = [self.offered[one] for one in expected] or "one of those offered"
            self.fail(f"the plan in use is {self.offered.get(content, content[:99])}, not {wanted}")
        return content

    def serve(self, routine):
        """Has the server call a routine for each request; what it raises ends the drill."""
        def guarded(_, connection, request):
            try:
                return routine(connection, request)
            except Broken as broken:
                self.broken = self.broken or broken
                return False
        self.server.fault = guarded

    def until(self, condition, what, patience=120):
        end = time.monotonic() + patience
        while not condition():
            if self.broken:
                raise self.broken
            if not self.agent.is_running() or time.monotonic() > end:
                self.check()
                self.fail(f"{what} did not come in {patience} s; the log ends: {self.agent.log()[-1000:]}")
            time.sleep(0.05)

    def ask(self, condition, what):
        """Says that requests wait, again and again: the agent may take the word back for a list that it has just read."""
        def said():
            self.agent.store({"Monitoring": {"RequestAvailable": "YES"}})
            return condition()
        self.until(said, what)

    def offer(self, archive):
        """The path of an archive."""
        path = f"/servlets/Configuration/{len(self.server.plans) + 1}"
        self.server.plans[path] = archive
        return path

    def offer_plan(self, content):
        return self.offer(inputs.archive(inputs.Member("queryconf.txt", content)))

    def download(self, *downloads):
        """Has the agent download archives: (key, path)."""
        def notices():
            return sum(query.get("status") == "success" for _, query in list(self.server.seen))
        before, seen, last = notices(), -1, 0

        def noticed():
            nonlocal seen, last
            if (now := self.server.count("Configuration")) != seen and seen >= 0:
                seen, last = now, time.monotonic()
            elif time.monotonic() > last + 40 and not self.server.requests:  # beside a busy machine a list can get lost
                seen, last = now, time.monotonic()
                self.server.order(*[{"REQUEST_TYPE": "DOWNLOAD_QUERYCONF", "AGENT_REQUEST_ID": "1", "AGENT_KEY": key,
                                     "DOWNLOAD_URL": path} for key, path in downloads])
            return notices() > before
        self.ask(noticed, "the notice of a download")

    def status(self, name):
        return int(re.search(rf"{name}:\s+(\d+)", pathlib.Path(f"/proc/{self.agent.process.pid}/status").read_text())[1])

    def measure(self):
        """MiB, descriptors, threads."""
        return self.status("VmRSS") / 1024, len(os.listdir(f"/proc/{self.agent.process.pid}/fd")), self.status("Threads")

    def note_peak(self, batch):
        """Takes the MiB that were reached since the last call."""
        self.peaks[batch] = max(self.peaks.get(batch, 0), self.status("VmHWM") / 1024)
        pathlib.Path(f"/proc/{self.agent.process.pid}/clear_refs").write_text("5")
        if self.peaks[batch] > PEAK:
            self.fail(f"the agent reached {self.peaks[batch]:.0f} MiB")

    def rest(self, uploads=2):
        """Sees the agent collect and upload a new plan on an honest server."""
        self.server.fault = None
        plans = {key: plan().replace("Flows".encode("utf-16-le"), f"Flows_{key}".encode("utf-16-le")) for key in SLAVES}
        plans["LONG1"] = self.new_plan()
        for _ in range(4):
            if late := [key for key in plans if self.plan_of(key) != plans[key]]:
                self.download(*[(key, self.offer_plan(plans[key])) for key in late])
        self.check_plan(plans["LONG1"])
        zips, records = len(self.server.zips), len(self.server.records)
        self.until(lambda: len(self.server.zips) >= zips + uploads and len(self.server.records) > records, "another upload")

    def begin(self):
        self.agent.start()
        self.rest(4)
        self.before = self.measure()
        self.note_peak("an honest server")

    def finish(self, batch):
        """What is true after a batch."""
        self.input = f"the {batch}, the last of them {self.input}"
        self.rest()
        self.check()
        self.note_peak(batch)
        if self.registry() != self.values:
            self.fail("values of the registry have changed that are not the agent's")
        memory, files, threads = self.before
        self.until(lambda: (now := self.measure())[0] <= memory + KEPT and now[1] <= files and now[2] <= threads,
                   f"{self.before} MiB, descriptors and threads out of {self.measure()}")
        if re.search(r"^\W*(2026 )?FORGED", self.agent.log(), re.M):
            self.fail("a line of the log is forged")
        print(f"hostile: {batch}: {self.peaks[batch]:.0f} MiB, then {self.measure()}", file=sys.stderr)


def send_archives(world, rows, tries=4):
    """All in one list: when the next one is asked for, the last one has been dealt with."""
    paths, live, last, again = {world.offer(row[1]): row for row in rows}, world.check_plan(), None, []

    def judge():
        nonlocal live
        world.check()
        if last is None:
            return
        before, live = live, world.check_plan()
        if last[2] and live == before and tries > 0:
            again.append(last)  # beside a busy machine a download can come too late for the fast clock
        elif last[2] is not None:
            world.check_plan(last[2] or before)

    def serve(_, request):
        nonlocal last
        if paths.get(request.target, last) is not last:
            judge()
            last = paths[request.target]
            world.input = f"the archive {last[0]!r}"
        return False

    world.serve(serve)
    world.download(*[("LONG1", path) for path in paths])
    judge()
    if again:
        send_archives(world, again, tries - 1)


def send_plans(world, rows, tries=4):
    """To slaves, five at a time, while the agent's own plan goes on."""
    again = []
    for some in (rows[at:at + len(SLAVES)] for at in range(0, len(rows), len(SLAVES))):
        world.input = "the plans " + ", ".join(repr(title) for title, _, _ in some)
        sent = []
        for key, row in zip(SLAVES, some):
            content = row[1]
            for encoding in ("utf-16-le", "utf-8", "utf-16-be"):
                content = content.replace('"WorkFlows"'.encode(encoding), f'"WorkFlows_{key}"'.encode(encoding))
            sent.append((key, row, content, world.plan_of(key)))
        world.download(*[(key, world.offer_plan(content)) for key, _, content, _ in sent])
        world.agent.virtual(20)
        world.check()
        for key, row, content, before in sent:
            now, taken = world.plan_of(key), row[2]
            if taken and now == before and tries > 0:
                again.append(row)
            elif now not in [content] * (taken is not False) + [before] * (taken is not True):
                world.fail(f"the plan {row[0]!r} was not judged right")
    if again:
        send_plans(world, again, tries - 1)


def feed(world, waiting):
    """Has the server give the next of the hostile answers, (title, parts), that wait for a servlet; "list" is the servlet of
    requests when it is asked for some."""
    def serve(connection, request):
        is_list = request.servlet == "DataAgentHandlerServlet" and request.method == "GET" and "action" not in request.query
        servlet = request.servlet if not is_list else "list" if not world.server.requests else ""
        if not waiting.get(servlet):
            return False
        if servlet != "RegisterAgent":  # where the agent may be killed meanwhile
            world.check()
            world.check_plan()
        title, parts = waiting[servlet].pop(0)
        world.input = f"{title!r}, an answer of {servlet}"
        if servlet == "FileCollector":
            world.server.accept(request)
        for part in parts:
            connection.sendall(part)
        return True

    world.serve(serve)


def send_lists(world, rows):
    waiting = {"list": [(title, [answer(body=content)]) for title, content in rows]}
    feed(world, waiting)
    world.ask(lambda: not waiting["list"], "the last look for requests")


def send_answers(world, rows):
    """Each to an upload, a look for requests and a download."""
    waiting = {servlet: list(rows) for servlet in ("FileCollector", "list", "Configuration")}
    feed(world, waiting)
    world.download(*[("LONG1", world.offer(b""))] * len(rows))
    world.ask(lambda: not any(waiting.values()), "the last answer")


def send_registrations(world, rows):
    """Starts the agent for each that it takes for an answer."""
    waiting = {"RegisterAgent": list(rows)}
    feed(world, waiting)
    while left := len(waiting["RegisterAgent"]):
        world.agent.kill()
        world.agent.start()
        world.until(lambda: len(waiting["RegisterAgent"]) < left, "a registration")
        world.agent.virtual(12)
        world.check()
        if (key := world.agent.setting("Monitoring", "MonitoringAgentKey")) != "LONG1":
            world.fail(f"the agent's key is {key}")
    world.agent.kill()
    world.begin()


def device_plan(device, numbers):
    """A plan that asks for these cases, half of them by a walk."""
    def record(number):
        is_walk = "walk" in device.rows[number][0] or number % 2 == 0
        return {"PROTOCOL": "P", "OID": ".".join(map(str, ("", *hostile_device.ROOT, number))) + ("" if is_walk else ".0"),
                "DEVICE_NAME": "127.0.0.1", "SNMP_PORT": str(device.port), "SNMP_VERSION": "v2c" if number % 3 else "v1",
                "COMMUNITY": "public", "POLL_ID": f"case {number}", "IS_MULTIPLE_POLLED_DATA": str(is_walk)}
    return plan(workflow("devices", [record(number) for number in numbers], 60))


def send_datagrams(device, world, numbers):
    """All polls come to an end, and each has its record."""
    content = world.new_plan(device_plan(device, numbers))
    world.input = "the datagrams " + ", ".join(repr(device.rows[number][0]) for number in numbers)
    seen, left = set(os.listdir(world.agent.witness)), set(numbers)

    def all_recorded():
        for name in sorted(set(os.listdir(world.agent.witness)) - seen):
            if not name.endswith(".part"):
                seen.add(name)
                record = (world.agent.witness / name).read_bytes().decode("utf-16-le", "replace")
                left.difference_update(int(number) for number in re.findall(r'"ID": "case (\d+)"', record))
        return not left

    world.download(("LONG1", world.offer_plan(content)))
    world.until(all_recorded, "a record of each poll")


def walk_without_end(folder, seed):
    """Long values of a device that never comes to an end; the MiB that the agent reached. On a slower clock, because all of
    it has to be uploaded within the time for an answer."""
    device, world = hostile_device.Device([hostile_device.ENDLESS]), World(pathlib.Path(folder) / "walk", seed, 6)
    world.input = "a walk without end"
    try:
        world.agent.write_plan(device_plan(device, [0]))
        world.agent.start()
        world.until(lambda: world.server.records, "its record")
        world.note_peak("a walk without end")
        world.until(lambda: world.measure()[0] < 2 * KEPT, "the return of its memory")
        world.agent.kill()
        world.agent.vouch(world.server)
        return world.peaks
    finally:
        world.close()
        device.close()


def run(seed, quick, folder):
    chance, counts = random.Random(seed), {}
    device, world = hostile_device.Device(hostile_device.cases(chance)), World(folder, seed)
    try:
        world.begin()
        for batch, rows, send in (
                ("archives", inputs.archives(chance, world.root, world.new_plan), send_archives),
                ("plans", inputs.plans(chance, world.root, device.port), send_plans),
                ("lists", inputs.lists(chance, world.root, world.other_server.getsockname()[1], world.offer), send_lists),
                ("answers", inputs.answers(chance, world.server.port), send_answers),
                ("datagrams", range(len(device.rows)), functools.partial(send_datagrams, device)),
                ("registrations", inputs.registrations(), send_registrations)):
            rows = rows[seed % 20::20] if quick else rows
            counts[batch] = len(rows)
            for at in range(0, len(rows), 50):
                send(world, rows[at:at + 50])
                world.finish(batch)
        records, twice = settle(world.agent, world.server, 180)
    finally:
        world.close()
        device.close()
    peaks = world.peaks if quick else world.peaks | walk_without_end(folder, seed)
    return {"title": "Hostile input", "lines": [
        f"{sum(counts.values())} inputs: " + ", ".join(f"{count} {batch}" for batch, count in counts.items()) +
        " (each answer to three servlets).",
        f"None of {len(world.files)} files and folders around the agent changed, and no value of the registry but its own.",
        "The most MiB of the agent: " + ", ".join(f"{batch} {peak:.0f}" for batch, peak in peaks.items()) +
        f"; {world.before[0]:.0f} at rest, at most {KEPT} more after each batch.",
        f"{records} records were complete, and all arrived; {twice} came twice."]}
