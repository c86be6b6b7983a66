"""Hostile archives, plans, lists of requests, answers and datagrams to an unchanged agent, in a tree of other files of which
nothing may change. After each batch the agent collects and uploads, and has given back what the batch took."""

import contextlib
import functools
import hashlib
import os
import pathlib
import random
import re
import socket
import sys
import time

import hostile_inputs as inputs
import snmp_device
from agent import Agent, Broken, plan, script, settle, workflow
from server import AGENT_KEY, Server, answer, download

PEAK, KEPT = 512, 16  # MiB that the agent may reach, and that may stay with it after a batch
LOGS = 64_000_000     # bytes of all its logs
ELSEWHERE = [pathlib.Path(place) / inputs.MARK for place in ("/", "/tmp", "/dev/shm")]

# What comes and goes in the agent's folder, and in the registry.
OWN = re.compile(r"(witness|control|output|notify)(/.+)?|"
                 r"agent/(state/registry\.db(-wal|-shm)?|monitoring/(bin/agent\.lock|bin/(data|zipdata)(/.+)?|"
                 r"conf/queryconf\.txt|conf/(backup|slaves)(/[^/]+(/queryconf\.txt)?)?|conf/backup/queryconf\.txt|"
                 r"conf/download(/.+)?|logs(/(agent\d*\.log|status\.json(\.tmp)?))?))")
OWN_VALUES = re.compile(r'"(RequestAvailable|RequestID|MALastCreated\w+|KVLastAccessName)"=')


class World:
    """The agent, its server, and the files around them."""

    def __init__(self, folder, rate=120):
        self.input, self.peaks = "the start", {}
        self.root = folder / "world"
        self.server = Server()
        self.other_server = socket.create_server(("127.0.0.1", 0))
        self.other_server.setblocking(False)
        self.other_port = self.other_server.getsockname()[1]
        self.agent = Agent(self.root / "opt/kestrova", self.server.port, rate)
        self.agent.environment["HOME"] = str(self.root / "home")
        self.agent.run("kvreg", "set", r"Software\Other", "Value", "theirs")
        here, tree = "opt/kestrova", "opt/kestrova/agent/monitoring"
        secret = plan(workflow("secret", [script("secret")]))
        for name, content in {"home/.profile": b"", "home/.ssh/authorized_keys": b"", "etc/passwd": b"", "etc/cron.d/job": b"",
                              "etc/plan": secret, "etc/plan.zip": inputs.archive(("queryconf.txt", secret)),
                              "opt/other/tool": f"#!/bin/sh\ntouch {self.root}/{inputs.MARK}\n".encode(),
                              f"{here}/queryconf.txt": b"", f"{here}/output": b"", f"{tree}/bin/MonitoringAgent": b"",
                              f"{here}/agent2/monitoring/conf/queryconf.txt": b"", f"{tree}/conf/notes.txt": b""}.items():
            (self.root / name).parent.mkdir(parents=True, exist_ok=True)
            (self.root / name).write_bytes(content)
        (self.root / "opt/other/tool").chmod(0o755)
        (self.root / "link").symlink_to("etc")
        self.offered = []  # plans that the agent may use
        self.agent.write_plan(self.new_plan())
        self.files, self.values = self.look(), self.registry()

    def new_plan(self):
        """The bytes of another plan than ever before."""
        self.offered.append(plan(workflow(f"steady {len(self.offered)}", [script("steady")])))
        return self.offered[-1]

    def look(self):
        """Each file and folder that nobody changes -> what it is."""
        found = {}
        for folder, folders, files in os.walk(self.root):
            for path in (os.path.join(folder, name) for name in (*folders, *files)):
                name = os.path.relpath(path, self.agent.folder)
                if not OWN.fullmatch(name):
                    status, is_file = os.lstat(path), os.path.isfile(path)
                    found[path] = (status.st_mode, status.st_mtime_ns if is_file or not name.startswith("agent/") else 0,
                                   hashlib.sha256(pathlib.Path(path).read_bytes()).hexdigest() if is_file else "")
        return found

    def registry(self):
        """What the registry holds beside the agent's own values."""
        file = self.root.with_name("registry")
        self.agent.run("kvreg", "export", str(file))
        text = file.read_bytes().decode("utf-16")
        file.unlink()
        return [line for line in text.splitlines() if not OWN_VALUES.match(line)]

    def check(self):
        """The plan in use may be, and nothing has changed that is not the agent's own."""
        if (in_use := self.agent.plan()) not in self.offered:
            raise Broken(f"the plan in use is {in_use and in_use[:99]}")
        files = self.look()
        for path in sorted(files.keys() | self.files.keys()):
            if files.get(path) != self.files.get(path):
                raise Broken(f"{path} was {self.files.get(path, 'absent')} and is {files.get(path, 'absent')}")
        sizes = {}
        with contextlib.suppress(FileNotFoundError):  # one was renamed meanwhile
            sizes = {entry.name: entry.stat().st_size for entry in os.scandir(self.agent.monitoring / "logs")}
        if sum(sizes.values()) > LOGS or sizes.get("status.json", 0) > 20_000:
            raise Broken(f"the logs grow: {sizes}")
        for path in ELSEWHERE:
            if path.exists():
                path.unlink()
                raise Broken(f"{path} was made")
        with contextlib.suppress(BlockingIOError):
            self.other_server.accept()
            raise Broken("another server was asked")

    def until(self, condition, what, patience=120):
        """Waits, and checks the world all the time."""
        self.agent.until(lambda: self.check() or condition(), what, patience)

    def ask(self, condition, what, *requests):
        """Orders requests, and says again and again that they wait: the agent may take the word back for a list that it has
        just read, and beside a busy machine it may lose a list."""
        asked = -1000

        def is_done():
            nonlocal asked
            if time.monotonic() > asked + 40 and not self.server.requests:
                self.server.order(*requests)
                asked = time.monotonic()
            self.agent.store({"Monitoring": {"RequestAvailable": "YES"}})
            return condition()
        self.until(is_done, what)

    def download(self, *paths):
        """Has the agent download archives in one list, until its notice of that."""
        notices = self.server.count("notice", status="success")
        self.ask(lambda: self.server.count("notice", status="success") > notices, "the notice of a download",
                 *[download(path) for path in paths])

    def note_peak(self, batch):
        """Takes the MiB that were reached since the last call."""
        self.peaks[batch] = max(self.peaks.get(batch, 0), self.agent.status("VmHWM") / 1024)
        pathlib.Path(f"/proc/{self.agent.process.pid}/clear_refs").write_text("5")
        if self.peaks[batch] > PEAK:
            raise Broken(f"the agent reached {self.peaks[batch]:.0f} MiB")

    def rest(self):
        """Sees the agent collect and upload by a new plan on an honest server."""
        self.server.fault = None
        content = self.new_plan()
        self.ask(lambda: self.agent.plan() == content, "a good plan in use", download(self.server.offer_plan(content)))
        for _ in range(2):
            self.agent.goes_on(self.server, "by a good plan", 120)

    def begin(self):
        self.agent.start()
        self.rest()
        self.before = self.agent.usage()
        self.note_peak("an honest server")

    def finish(self, batch):
        """What is true after a batch."""
        self.input = f"the {batch}, the last of them {self.input}"
        self.rest()
        self.check()
        self.note_peak(batch)
        kept = {path.name for path in (self.agent.monitoring / "conf/download").iterdir()}
        if kept - {"queryconf.zip", "queryconf.txt", "queryconf.txt.refused", "RequestList.txt", "RequestList.txt.tmp"}:
            raise Broken(f"in the folder of downloads stay {kept}")
        if self.registry() != self.values:
            raise Broken("values of the registry have changed that are not the agent's")
        self.until(lambda: all(now <= before + more for now, before, more in zip(self.agent.usage(), self.before, (KEPT, 0, 0))),
                   f"the return from {self.agent.usage()} to {self.before} MiB, descriptors and threads")
        if re.search(r"^\W*(2026 )?FORGED", self.agent.log(), re.M):
            raise Broken("a line of the log is forged")
        print(f"hostile: {batch}: {self.peaks[batch]:.0f} MiB, then {self.agent.usage()}", file=sys.stderr)


def send_archives(world, rows):
    """All in one list."""
    titles = {world.server.offer(row[1]): row[0] for row in rows}

    def tell(request):
        world.input = titles.get(request.target, world.input)

    world.server.fault = tell
    world.download(*titles)


def send_plans(world, rows):
    """Each runs for a while."""
    for row in rows:
        world.offered += row[2:]
        send_archives(world, [row])
        world.agent.virtual(15)


def feed(world, kinds, rows):
    """Has the server give the next of these rows, (title, parts), for each request of these kinds; what waits, by kind."""
    waiting = {kind: list(rows) for kind in kinds}

    def give(request):
        if not waiting.get(request.kind) or request.kind == "list" and world.server.requests:
            return False
        title, parts = waiting[request.kind].pop(0)
        world.input = f"{title}, an answer to {request.kind}"
        if request.body and request.kind == "upload":
            world.server.accept(request)
        request.send(*parts)
        return True

    world.server.fault = give
    return waiting


def send_lists(world, rows):
    waiting = feed(world, ["list"], [(title, [answer(body=content)]) for title, content in rows])
    world.ask(lambda: not waiting["list"], "the last look for requests")


def send_answers(world, rows):
    """Each to an upload, a look for requests and a download."""
    waiting = feed(world, ("upload", "list", "plan"), rows)
    path = world.server.offer(b"")
    world.ask(lambda: not any(waiting.values()), "the last answer", *[download(path)] * len(rows))


def send_registrations(world, rows):
    """Starts the agent for each that it takes for an answer."""
    waiting = feed(world, ["register"], rows)["register"]
    while left := len(waiting):
        world.agent.kill()
        world.agent.start()
        world.until(lambda: len(waiting) < left, "a registration")
        world.agent.virtual(12)
        if (key := world.agent.setting("Monitoring", "MonitoringAgentKey")) != AGENT_KEY:
            raise Broken(f"the agent's key is {key}")
    world.agent.kill()
    world.begin()


def device_plan(device, numbers):
    """A plan that asks for these cases, half of them by a walk."""
    def record(number):
        is_walk = "walk" in device.rows[number][0] or number % 2 == 0
        return {"PROTOCOL": "P", "OID": snmp_device.oid(number) + ("" if is_walk else ".0"), "DEVICE_NAME": "127.0.0.1",
                "SNMP_PORT": str(device.port), "SNMP_VERSION": "v2c" if number % 3 else "v1", "COMMUNITY": "public", "POLL_ID": f"case {number}", "IS_MULTIPLE_POLLED_DATA": str(is_walk)}
    return plan(workflow("devices", [record(number) for number in numbers], 60))


def send_datagrams(device, world, numbers):
    """All polls come to an end, and each has its record."""
    world.offered.append(device_plan(device, numbers))
    world.input = "the datagrams " + ", ".join(repr(device.rows[number][0]) for number in numbers)
    seen, left = set(os.listdir(world.agent.witness)), set(numbers)

    def all_recorded():
        for name in sorted(set(os.listdir(world.agent.witness)) - seen):
            if not name.endswith(".part"):
                seen.add(name)
                record = (world.agent.witness / name).read_bytes().decode("utf-16-le", "replace")
                left.difference_update(int(number) for number in re.findall(r'"ID": "case (\d+)"', record))
        return not left

    world.download(world.server.offer_plan(world.offered[-1]))
    world.until(all_recorded, "a record of each poll")


def walk_without_end(folder):
    """Long values of a device that never comes to an end; the MiB that the agent reached. On a slower clock, because all of
    it has to be uploaded within the time for an answer."""
    world = World(folder / "walk", 6)
    world.agent.write_plan(device_plan(snmp_device.Device([snmp_device.ENDLESS]), [0]))
    world.agent.start()
    world.agent.until(lambda: world.server.records, "the record of a walk without end", 120)
    world.note_peak("a walk without end")
    world.agent.until(lambda: world.agent.usage()[0] < 2 * KEPT, "the return of its memory")
    world.agent.kill()
    world.agent.vouch(world.server)
    return world.peaks


def run_batches(world, seed, quick):
    """How many inputs each batch had."""
    chance, counts = random.Random(seed), {}
    device = snmp_device.Device(snmp_device.cases(chance))
    world.begin()
    for batch, rows, send in (
            ("archives", inputs.archives(chance, world.root, world.new_plan), send_archives),
            ("plans", inputs.plans(chance, world.root, device.port), send_plans),
            ("lists", inputs.lists(chance, world.root, world.other_port, world.server.offer), send_lists),
            ("answers", inputs.answers(chance), send_answers),
            ("datagrams", range(len(device.rows)), functools.partial(send_datagrams, device)),
            ("registrations", inputs.registrations(), send_registrations)):
        rows = rows[seed % 20::20] if quick else rows
        counts[batch] = len(rows)
        for at in range(0, len(rows), 50):
            send(world, rows[at:at + 50])
            world.finish(batch)
    return counts


def run(seed, quick, folder):
    world = World(folder)
    try:
        counts = run_batches(world, seed, quick)
    except Broken as broken:
        raise Broken(f"after {world.input}: {broken}") from broken
    records, twice = settle(world.agent, world.server, 180)
    peaks = world.peaks if quick else world.peaks | walk_without_end(folder)
    return [
        f"{sum(counts.values())} inputs: " + ", ".join(f"{count} {batch}" for batch, count in counts.items()) +
        " (each answer to three kinds of request).",
        f"None of {len(world.files)} files and folders around the agent changed, and no value of the registry but its own.",
        "The most MiB of the agent: " + ", ".join(f"{batch} {peak:.0f}" for batch, peak in peaks.items()) +
        f"; {world.before[0]:.0f} at rest, at most {KEPT} more after each batch.",
        f"{records} records were complete, and all arrived; {twice} came twice."]
