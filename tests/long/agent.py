"""The unchanged agent in a folder of its own, under the preloaded library shim.cpp, and the oath that nothing is lost."""

import collections
import contextlib
import ctypes
import json
import mmap
import os
import pathlib
import re
import shutil
import signal
import socket
import subprocess
import threading
import time

from server import AGENT_KEY, Server, digest, download, unzipped

KEY = r"Software\Halvorine\Kestrova\KVAgent"
PROGRAMS = pathlib.Path(os.environ.get("KV_LONG_PROGRAMS", pathlib.Path(__file__).parents[2] / "build/release/bin"))

NONE, KILL_BEFORE, KILL_AFTER, FAIL, WRITE_HALF, SLOW = range(6)
OPENS, WRITES, RENAMES, UNLINKS, SYNCS, MAKES_FOLDER, READS = (1 << bit for bit in range(7))
CHANGES = OPENS | WRITES | RENAMES | UNLINKS | SYNCS | MAKES_FOLDER
SECOND = 1_000_000_000
KEPT = (16, 1, 0)  # MiB, descriptors and threads that may stay with it after what took them

SCRIPT = """#!/bin/sh
read -r id </proc/sys/kernel/random/uuid
printf '{ "AGENTKEY": "%s", "DATACOLLECTTIME": "%s", "ERRORMSG": "NO ERROR", "%s": [ { "Id": "%s' "$1" "$3" "$2" "$id"
PADDING
printf '" } ] }'
"""


class Broken(Exception):
    """A promise that was seen broken."""


@contextlib.contextmanager
def during(tell):
    """What is broken meanwhile says when."""
    try:
        yield
    except Broken as broken:
        raise Broken(f"{tell()}: {broken}") from broken


class Control(ctypes.Structure):
    """The page that the preloaded library shares with us; see the record of this name there."""

    _fields_ = [("rate", ctypes.c_double), *((name, ctypes.c_int64) for name in (
        "real_start", "monotonic", "wall_offset", "asleep", "count", "fault", "number", "begin", "end", "kinds", "per_million",
        "seed", "struck"))]

    @classmethod
    def make(cls, path, rate):
        path.write_bytes(bytes(ctypes.sizeof(cls)))
        with open(path, "r+b") as file:
            control = cls.from_buffer(mmap.mmap(file.fileno(), 0))
        control.rate, control.real_start = rate, time.clock_gettime_ns(time.CLOCK_MONOTONIC)
        control.monotonic, control.wall_offset = control.real_start, time.time_ns() - control.real_start
        return control

    def strike(self, fault, number=0, begin=0, end=1 << 61, kinds=CHANGES, per_million=1_000_000, seed=0):
        """From now on: the fault at the operations [begin, end), counted from now."""
        self.fault, self.number, self.begin, self.end = NONE, number, self.count + begin, self.count + end
        self.kinds, self.per_million, self.seed, self.struck = kinds, per_million, seed, 0
        self.fault = fault

    def relent(self):
        self.fault = NONE

    def wall(self):
        """The fast wall clock, in seconds since 1970."""
        passed = (time.clock_gettime_ns(time.CLOCK_MONOTONIC) - self.real_start) * self.rate
        return (self.monotonic + passed + self.wall_offset) / SECOND

    def turn(self, seconds):
        """Sets the wall clock by so much."""
        self.wall_offset += int(seconds * SECOND)


def workflow(name, records, interval=1):
    return {"wfname": name, "interval": interval, "recordSetName": records}


def script(name, program="id.sh"):
    return {"script": program, "Name": name, "params": "", "response_needed": "true"}


def plan(*workflows):
    """The bytes of a plan."""
    return json.dumps({"WorkFlows": list(workflows)}).encode("utf-16-le")


class Agent:
    """An install tree below `folder`/agent with a server of its own. Its settings and files last from one start to the next."""

    def __init__(self, folder, rate=120, settings=None):
        self.folder = folder
        self.tree = folder / "agent"
        self.monitoring = self.tree / "monitoring"
        self.data = self.monitoring / "bin/data"
        self.zipdata = self.monitoring / "bin/zipdata"
        self.witness = folder / "witness"
        for made in (self.monitoring / "bin", self.monitoring / "conf/scripts", self.tree / "state", self.witness):
            made.mkdir(parents=True, exist_ok=True)
        self.server, self.process = Server(), None
        self.plans = []  # that it may have
        self.control = Control.make(folder / "control", rate)
        self.environment = {**os.environ, "KVAGENT_STATE_DIR": str(self.tree / "state"), "LC_ALL": "C", "TZ": "UTC"}
        self.store({"": {"KVAgentInstallDir": f"{self.tree}/", "CustomerName": "Some customer", "RemoteOfficeName": "Office",
                         "EnableSendAgentStatus": "yes"},
                    "ServerInfo": {"KVServerName": "localhost", "KVServerFlatName": "--", "KVServerIPAddress": "127.0.0.1",
                                   "KVServerSecIPAddress": "--", "KVLastAccessName": "127.0.0.1",
                                   "KVServerSecurePort": str(self.server.port), "KVServerProtocol": "http"},
                    "Monitoring": {"MonitoringAgentKey": AGENT_KEY, "MasterAgent": "YES", "RequestAvailable": "NO",
                                   "RequestID": "NONE", "writeInterval": 1}})
        self.store(settings or {})
        self.write_script("id.sh")
        self.is_up = threading.Event()
        self.manager = socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM)
        self.manager.bind(str(folder / "notify"))
        threading.Thread(target=self._hear, daemon=True).start()

    def store(self, settings):
        for place, values in settings.items():
            for name, value in values.items():
                kind = ["--dword"] if isinstance(value, int) else []
                self.run("kvreg", "set", KEY + ("\\" + place if place else ""), name, str(value), *kind)

    def setting(self, place, name):
        return self.run("kvreg", "get", KEY + "\\" + place, name).strip()

    def run(self, program, *arguments):
        """What one of the tools prints."""
        done = subprocess.run([PROGRAMS / program, *arguments], env=self.environment, capture_output=True, text=True,
                              timeout=120)
        if done.returncode != 0:
            raise RuntimeError(f"{program} {' '.join(arguments)}: {done.stderr.strip()}")
        return done.stdout

    def plan(self, name="queryconf.txt"):
        """The bytes of the plan in use, or of another plan in its folder; null if it is absent."""
        file = self.monitoring / "conf" / name
        return file.read_bytes() if file.is_file() else None

    def check_plan(self):
        if self.plan() not in self.plans or self.plan("backup/queryconf.txt") not in (None, *self.plans):
            raise Broken(f"the plan or its backup is neither old nor new: {(self.plan() or b'')[:99]}")

    def write_plan(self, content):
        self.plans.append(content)
        (self.monitoring / "conf/queryconf.txt").write_bytes(content)

    def write_script(self, name, padding=""):
        """A script whose record holds a new id, and what a command prints."""
        path = self.monitoring / "conf/scripts" / name
        path.write_text(SCRIPT.replace("PADDING", padding))
        path.chmod(0o700)

    def ask(self, *requests):
        """Orders requests, and says in the registry that they wait."""
        self.server.order(*requests)
        self.store({"Monitoring": {"RequestAvailable": "YES"}})

    def order_plan(self, content):
        self.plans.append(content)
        self.ask(download(self.server.offer_plan(content)))

    def start(self):
        """As the service manager does."""
        self.is_up.clear()
        environment = {**self.environment, "LD_PRELOAD": str(PROGRAMS / "kv_long_shim.so"),
                       "KV_LONG_CONTROL": str(self.folder / "control"), "KV_LONG_ROOT": f"{self.tree}/",
                       "KV_LONG_WITNESS": str(self.witness), "NOTIFY_SOCKET": self.manager.getsockname(),
                       "INVOCATION_ID": "0" * 32}
        with open(self.folder / "output", "ab") as output:
            self.process = subprocess.Popen([PROGRAMS / "MonitoringAgent"], env=environment, stdout=output, stderr=output,
                                            cwd=self.folder)

    def _hear(self):
        """A manager that does not read would hold up the agent."""
        while message := self.manager.recv(4096):
            if b"READY=1" in message:
                self.is_up.set()

    def is_running(self):
        return self.process is not None and self.process.poll() is None

    def kill(self):
        if self.process is not None:
            self.process.kill()
            self.process.wait()

    def stop(self):
        """Stops it as the service manager does, which waits until it is up: before that SIGTERM ends it at once."""
        self.until(self.is_up.is_set, "its word that it is up")
        self.process.send_signal(signal.SIGTERM)
        if (code := self.process.wait(120)) != 0:
            raise Broken(f"the agent stopped with {code}; {self.last_words()}")

    def remove(self):
        self.kill()
        self.server.close()
        shutil.rmtree(self.folder, ignore_errors=True)

    def log(self):
        return "".join(file.read_text("utf-8", "replace") for file in sorted(self.monitoring.glob("logs/agent*.log")))

    def last_words(self):
        output = (self.folder / "output").read_text("utf-8", "replace")
        return f"its log ends:\n{self.log()[-1500:]}\nand its output:\n{output[-500:]}"

    def status(self, name):
        """A number of /proc/PID/status."""
        return int(re.search(rf"^{name}:\s+(\d+)", pathlib.Path(f"/proc/{self.process.pid}/status").read_text(), re.M)[1])

    def usage(self):
        """Resident MiB, descriptors and threads."""
        return self.status("VmRSS") / 1024, len(os.listdir(f"/proc/{self.process.pid}/fd")), self.status("Threads")

    def least_usage(self):
        """Of a while, because a descriptor may be open for a moment."""
        return tuple(map(min, zip(*[self.usage() for _ in range(30) if time.sleep(0.02) is None])))

    def gives_back(self, before):
        """Sees its usage come back to what it was."""
        self.until(lambda: all(now <= then + more for now, then, more in zip(self.usage(), before, KEPT)),
                   f"the return of MiB, descriptors and threads to {before} from {self.usage()}")

    def virtual(self, seconds):
        """Lets so many seconds of the fast clock pass, which the agent survives."""
        time.sleep(seconds / self.control.rate)
        self.see_running()

    def see_running(self):
        if not self.is_running():
            raise Broken(f"the agent ended with {self.process.returncode}; {self.last_words()}")

    def until(self, condition, what, patience=30):
        """Waits, and tells how many seconds of the fast clock that took. Of its real seconds only the share counts that a
        busy machine leaves to each program."""
        begin, counted = self.control.wall(), 0
        while not condition():
            self.see_running()
            if counted > patience:
                raise Broken(f"{what} did not come in {patience} s; {self.last_words()}")
            time.sleep(0.02)
            counted += 0.02 * min(1, os.cpu_count() / max(os.getloadavg()[0], 0.1))
        return self.control.wall() - begin

    def goes_on(self, when):
        """Sees a record become complete and an upload be accepted; the seconds of the fast clock until then."""
        records, uploads = len(os.listdir(self.witness)), self.server.uploads
        return self.until(lambda: len(os.listdir(self.witness)) > records and self.server.uploads > uploads,
                          f"a record and an upload {when}")

    def witnessed(self):
        """Name -> the sha256s of the contents that it had when it was complete; "" -> those of copies that a kill left
        without a name, which may have been complete."""
        seen = {}
        for path in self.witness.iterdir():
            name = "" if path.suffix == ".part" else path.name.rsplit(".", 2)[0]
            seen.setdefault(name, set()).add(digest(path.read_bytes()))
        return seen

    def waiting(self):
        """Name -> the sha256s of its copies that wait on the disk."""
        found = {}
        records = [{path.name: path.read_bytes()} for path in self.data.glob("*.txt")]
        for contents in (*records, *map(unzipped, self.zipdata.glob("*.zip"))):
            for name, content in contents.items():
                found.setdefault(name, set()).add(digest(content))
        return found

    def vouch(self):
        """Sees that each complete record waits or has arrived, as it was, and under a number of its own, and no other; how
        many there were, and how many came twice. The agent does not run meanwhile."""
        seen, waiting = self.witnessed(), self.waiting()
        unnamed = seen.pop("", set())
        for name in seen.keys() | self.server.records.keys():
            complete, arrived = seen.get(name, set()), set(self.server.records.get(name, ()))
            if len(complete | arrived) > 1:
                raise Broken(f"{name} was complete with {len(complete)} contents and arrived with {len(arrived)}")
            if not arrived <= complete | unnamed:
                raise Broken(f"{name} has arrived, and was never complete")
            if not complete <= arrived | waiting.get(name, set()):
                raise Broken(f"{name} is lost: it has not arrived, and {len(waiting.get(name, ()))} others wait")
        twice = sum(contents.total() > 1 for contents in self.server.records.values())
        return collections.Counter(records=len(seen), twice=twice)

    def settle(self, patience=60):
        """Runs it on an honest server and a healthy disk until nothing waits, and vouches."""
        self.kill()
        self.server.fault = None
        self.control.relent()
        self.write_plan(plan())
        self.start()
        self.until(lambda: not any((*self.data.glob("*.txt"), *self.zipdata.glob("*.zip"))), "an empty queue", patience)
        self.kill()
        return self.vouch()
