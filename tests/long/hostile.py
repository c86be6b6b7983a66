"""Hostile archives, plans, lists of requests, answers and datagrams to an unchanged agent, in a tree of other files of which
nothing may change. After each batch the agent collects and uploads, and has given back what the batch took."""

import contextlib
import functools
import os
import pathlib
import random
import re
import socket
import sys
import time

import hostile_inputs as inputs
import snmp_device
from agent import KEPT, Agent, Broken, during, plan, script, workflow
from server import answer, digest, download

PEAK = 512  # MiB that the agent may reach
ELSEWHERE = [pathlib.Path(place) / inputs.MARK for place in ("/", "/tmp", "/dev/shm")]

# What comes and goes in the agent's folder, and in the registry.
OWN = re.compile(r"(witness|control|output|notify)(/.+)?|"
                 r"agent/(state/registry\.db(-wal|-shm)?|monitoring/(bin/agent\.lock|bin/(data|zipdata)(/.+)?|"
                 r"conf/queryconf\.txt|conf/(backup|slaves)(/[^/]+(/queryconf\.txt)?)?|conf/backup/queryconf\.txt|"
                 r"conf/download(/.+)?|logs(/(agent\d*\.log|status\.json(\.tmp)?))?))")
DOWNLOADS = {"queryconf.zip", "queryconf.txt", "queryconf.txt.refused", "RequestList.txt", "RequestList.txt.tmp"}
OWN_VALUES = re.compile(r'"(RequestAvailable|RequestID|MALastCreated\w+|KVLastAccessName)"=')


class World(Agent):
    """The agent, and the files around it."""

    def __init__(self, root):
        super().__init__(root / "opt/kestrova")
        self.root, self.input, self.peaks = root, "the start", {}
        self.other_server = socket.create_server(("127.0.0.1", 0))
        self.other_server.setblocking(False)
        self.environment["HOME"] = str(root / "home")
        self.run("kvreg", "set", r"Software\Other", "Value", "theirs")
        here, tree = "opt/kestrova", "opt/kestrova/agent/monitoring"
        secret = plan(workflow("secret", [script("secret")]))
        for name, content in {"home/.profile": b"", "home/.ssh/authorized_keys": b"", "etc/passwd": b"", "etc/cron.d/job": b"",
                              "etc/plan": secret, "etc/plan.zip": inputs.archive(("queryconf.txt", secret)),
                              "opt/other/tool": f"#!/bin/sh\ntouch {root}/{inputs.MARK}\n".encode(),
                              f"{here}/queryconf.txt": b"", f"{here}/output": b"", f"{tree}/bin/MonitoringAgent": b"",
                              f"{here}/agent2/monitoring/conf/queryconf.txt": b"", f"{tree}/conf/notes.txt": b""}.items():
            (root / name).parent.mkdir(parents=True, exist_ok=True)
            (root / name).write_bytes(content)
        (root / "opt/other/tool").chmod(0o755)
        (root / "link").symlink_to("etc")
        self.write_plan(self.new_plan())
        self.files, self.values = self.look(), self.registry()

    def new_plan(self):
        """The bytes of another plan than ever before, which may be used."""
        self.plans.append(plan(workflow(f"steady {len(self.plans)}", [script("steady")])))
        return self.plans[-1]

    def look(self):
        """Each file and folder that nobody changes -> what it is."""
        found = {}
        for folder, folders, files in os.walk(self.root):
            for path in (os.path.join(folder, name) for name in (*folders, *files)):
                name = os.path.relpath(path, self.folder)
                if not OWN.fullmatch(name):
                    status, is_file = os.lstat(path), os.path.isfile(path)
                    found[path] = (status.st_mode, status.st_mtime_ns if is_file or not name.startswith("agent/") else 0,
                                   digest(pathlib.Path(path).read_bytes()) if is_file else "")
        return found

    def registry(self):
        """What the registry holds beside the agent's own values."""
        file = self.root.with_name("registry")
        self.run("kvreg", "export", str(file))
        return [line for line in file.read_bytes().decode("utf-16").splitlines() if not OWN_VALUES.match(line)]

    def check(self):
        """The plan in use may be, and nothing has changed that is not the agent's own."""
        self.check_plan()
        if (files := self.look()) != self.files:
            path = min(path for path in files.keys() | self.files.keys() if files.get(path) != self.files.get(path))
            raise Broken(f"{path} was {self.files.get(path, 'absent')} and is {files.get(path, 'absent')}")
        for path in filter(pathlib.Path.exists, ELSEWHERE):
            path.unlink()
            raise Broken(f"{path} was made")
        with contextlib.suppress(BlockingIOError):
            self.other_server.accept()
            raise Broken("another server was asked")

    def until(self, condition, what, patience=120):
        """Waits, and checks all the time."""
        return super().until(lambda: self.check() or condition(), what, patience)

    def ask_until(self, condition, what, *requests):
        """Orders requests, and says again and again that they wait: the agent may take the word back for a list that it has
        just read, and beside a busy machine it may lose a list."""
        asked = -1000

        def is_done():
            nonlocal asked
            if time.monotonic() > asked + 40 and not self.server.requests:
                self.server.order(*requests)
                asked = time.monotonic()
            self.ask()
            return condition()
        self.until(is_done, what)

    def note_peak(self, batch):
        """Takes the MiB that were reached since the last call."""
        self.peaks[batch] = max(self.peaks.get(batch, 0), self.status("VmHWM") / 1024)
        pathlib.Path(f"/proc/{self.process.pid}/clear_refs").write_text("5")
        if self.peaks[batch] > PEAK:
            raise Broken(f"the agent reached {self.peaks[batch]:.0f} MiB")

    def rest(self):
        """Sees the agent collect and upload by a new plan on an honest server."""
        self.server.fault = None
        content = self.new_plan()
        self.ask_until(lambda: self.plan() == content, "a good plan in use", download(self.server.offer_plan(content)))
        for _ in range(2):
            self.goes_on("by a good plan")

    def finish(self, batch):
        """What is true after a batch."""
        self.input = f"the {batch}, the last of them {self.input}"
        self.rest()
        self.note_peak(batch)
        if kept := set(os.listdir(self.monitoring / "conf/download")) - DOWNLOADS:
            raise Broken(f"in the folder of downloads stay {kept}")
        if self.registry() != self.values:
            raise Broken("values of the registry have changed that are not the agent's")
        self.gives_back(self.before)
        if re.search(r"^\W*(2026 )?FORGED", self.log(), re.M):
            raise Broken("a line of the log is forged")
        print(f"hostile: {batch}: {self.peaks[batch]:.0f} MiB, then {self.usage()}", file=sys.stderr)


def send_archives(world, rows):
    """All in one list, whose end is told to the server."""
    titles = {world.server.offer(row[1]): row[0] for row in rows}

    def tell(request):
        world.input = titles.get(request.target, world.input)

    world.server.fault = tell
    notices = world.server.count("notice", status="success")
    world.ask_until(lambda: world.server.count("notice", status="success") > notices, "the notice of a download",
                    *map(download, titles))


def send_plans(world, rows):
    """Each runs for a while."""
    for row in rows:
        world.plans += row[2:]
        send_archives(world, [row])
        world.virtual(30)


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
    world.ask_until(lambda: not waiting["list"], "the last look for requests")


def send_answers(world, rows):
    """Each to an upload, a look for requests and a download."""
    waiting = feed(world, ("upload", "list", "plan"), rows)
    path = world.server.offer(b"")
    world.ask_until(lambda: not any(waiting.values()), "the last answer", *[download(path)] * len(rows))


def device_plan(device, numbers):
    """A plan that asks for these cases, half of them by a walk."""
    def record(number):
        is_walk = "walk" in device.rows[number][0] or number % 2 == 0
        return {"PROTOCOL": "P", "OID": snmp_device.oid(number) + ("" if is_walk else ".0"), "DEVICE_NAME": "127.0.0.1",
                "SNMP_PORT": str(device.port), "SNMP_VERSION": "v2c" if number % 3 else "v1", "COMMUNITY": "public",
                "POLL_ID": f"case {number}", "IS_MULTIPLE_POLLED_DATA": str(is_walk)}
    return plan(workflow("devices", [record(number) for number in numbers], 60))


def send_datagrams(device, world, numbers):
    """All polls come to an end, and each has its record."""
    world.plans.append(device_plan(device, numbers))
    world.input = "the datagrams " + ", ".join(repr(device.rows[number][0]) for number in numbers)
    seen, left = set(os.listdir(world.witness)), set(numbers)

    def all_recorded():
        for name in set(os.listdir(world.witness)) - seen:
            if not name.endswith(".part"):
                seen.add(name)
                record = (world.witness / name).read_bytes().decode("utf-16-le", "replace")
                left.difference_update(int(number) for number in re.findall(r'"ID": "case (\d+)"', record))
        return not left

    world.ask_until(all_recorded, "a record of each poll", download(world.server.offer_plan(world.plans[-1])))


def run_batches(world, seed, quick):
    """How many inputs each batch had."""
    chance, counts = random.Random(seed), {}
    device = snmp_device.Device(snmp_device.cases(chance))
    world.start()
    world.rest()
    world.before = world.least_usage()
    world.note_peak("an honest server")
    for batch, rows, send in (
            ("archives", inputs.archives(chance, world.root, world.new_plan), send_archives),
            ("plans", inputs.plans(chance, world.root, device.port), send_plans),
            ("lists", inputs.lists(chance, world.root, world.other_server.getsockname()[1], world.server.offer), send_lists),
            ("answers", inputs.answers(chance), send_answers),
            ("datagrams", range(len(device.rows)), functools.partial(send_datagrams, device))):
        rows = rows[seed % 20::20] if quick else rows
        counts[batch] = len(rows)
        for at in range(0, len(rows), 50):
            send(world, rows[at:at + 50])
            world.finish(batch)
    return counts


def run(seed, quick, folder):
    world = World(folder / "world")
    with during(lambda: f"after {world.input}"):
        counts = run_batches(world, seed, quick)
    totals = world.settle(180)
    return [
        f"{sum(counts.values())} inputs: " + ", ".join(f"{count} {batch}" for batch, count in counts.items()) +
        " (each answer to three kinds of request).",
        f"None of {len(world.files)} files and folders around the agent changed, and no value of the registry but its own.",
        "The most MiB of the agent: " + ", ".join(f"{batch} {peak:.0f}" for batch, peak in world.peaks.items()) +
        f"; {world.before[0]:.0f} at rest, at most {KEPT[0]} more after each batch.",
        f"{totals['records']} records were complete, and all arrived; {totals['twice']} came twice."]
