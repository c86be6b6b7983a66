"""The unchanged agent in a folder of its own, under the preloaded library shim.cpp, and the oath that nothing is lost."""

import hashlib
import json
import mmap
import os
import pathlib
import shutil
import signal
import socket
import struct
import subprocess
import time
import zipfile

KEY = r"Software\Halvorine\Kestrova\KVAgent"
PROGRAMS = pathlib.Path(os.environ.get("KV_LONG_PROGRAMS", pathlib.Path(__file__).parents[2] / "build/release/bin"))

NONE, KILL_BEFORE, KILL_AFTER, FAIL, WRITE_HALF, SLOW = range(6)
OPENS, WRITES, RENAMES, UNLINKS, SYNCS, MAKES_FOLDER, READS = (1 << bit for bit in range(7))
CHANGES = OPENS | WRITES | RENAMES | UNLINKS | SYNCS | MAKES_FOLDER
SECOND = 1_000_000_000

SCRIPT = """#!/bin/sh
read -r id </proc/sys/kernel/random/uuid
printf '{ "AGENTKEY": "%s", "DATACOLLECTTIME": "%s", "ERRORMSG": "NO ERROR", "%s": [ { "Id": "%s" } ] }' "$1" "$3" "$2" "$id"
"""


class Broken(Exception):
    """A promise that was seen broken."""


class Control:
    """The page that the preloaded library shares with us; see the record of this name there."""

    FIELDS = ("rate", "real_start", "monotonic", "wall_offset", "asleep", "count", "fault", "number", "begin", "end", "kinds",
              "per_million", "seed", "struck")

    def __init__(self, path, rate):
        self.path = path
        path.write_bytes(bytes(8 * len(self.FIELDS)))
        with open(path, "r+b") as file:
            self.page = mmap.mmap(file.fileno(), 0)
        now = time.clock_gettime_ns(time.CLOCK_MONOTONIC)
        struct.pack_into("d", self.page, 0, rate)
        self.rate = rate
        self.set(real_start=now, monotonic=now, wall_offset=time.time_ns() - now)

    def set(self, **values):
        for name, value in values.items():
            struct.pack_into("q", self.page, 8 * self.FIELDS.index(name), int(value))

    def get(self, name):
        return struct.unpack_from("q", self.page, 8 * self.FIELDS.index(name))[0]

    def strike(self, fault, number=0, begin=0, end=1 << 62, kinds=CHANGES, per_million=1_000_000, seed=0):
        """From now on: the fault at the operations [begin, end), counted from now."""
        count = self.get("count")
        self.set(fault=NONE, number=number, begin=count + begin, end=count + end, kinds=kinds, per_million=per_million,
                 seed=seed, struck=0)
        self.set(fault=fault)

    def relent(self):
        self.set(fault=NONE)

    def wall(self):
        """The fast wall clock, in seconds since 1970."""
        passed = (time.clock_gettime_ns(time.CLOCK_MONOTONIC) - self.get("real_start")) * self.rate
        return (self.get("monotonic") + passed + self.get("wall_offset")) / SECOND

    def turn(self, seconds):
        """Sets the wall clock by so much."""
        self.set(wall_offset=self.get("wall_offset") + int(seconds * SECOND))


def workflow(name, records, interval=1):
    return {"wfname": name, "interval": interval, "recordSetName": records}


def script(name, program="id.sh"):
    return {"script": program, "Name": name, "params": "", "response_needed": "true"}


def plan(*workflows):
    """The bytes of a plan."""
    return json.dumps({"WorkFlows": list(workflows)}).encode("utf-16-le")


class Agent:
    """An install tree below `folder`/agent. Its settings and files last from one start to the next."""

    def __init__(self, folder, port, rate=120, key="LONG1", settings=None):
        self.folder = pathlib.Path(folder)
        self.tree = self.folder / "agent"
        self.monitoring = self.tree / "monitoring"
        self.data = self.monitoring / "bin/data"
        self.zipdata = self.monitoring / "bin/zipdata"
        self.witness = self.folder / "witness"
        self.process = None
        for made in (self.monitoring / "bin", self.monitoring / "conf/scripts", self.tree / "state", self.witness):
            made.mkdir(parents=True, exist_ok=True)
        self.control = Control(self.folder / "control", rate)
        self.environment = {**os.environ, "KVAGENT_STATE_DIR": str(self.tree / "state"), "LC_ALL": "C", "TZ": "UTC"}
        self.store({"": {"KVAgentInstallDir": f"{self.tree}/", "CustomerName": "Some customer", "RemoteOfficeName": "Office",
                         "EnableSendAgentStatus": "yes"},
                    "ServerInfo": {"KVServerName": "localhost", "KVServerFlatName": "--", "KVServerIPAddress": "127.0.0.1",
                                   "KVServerSecIPAddress": "--", "KVLastAccessName": "127.0.0.1",
                                   "KVServerSecurePort": str(port), "KVServerProtocol": "http"},
                    "Monitoring": {"MonitoringAgentKey": key, "MasterAgent": "YES", "RequestAvailable": "NO",
                                   "RequestID": "NONE", "writeInterval": 1}})
        for place, values in (settings or {}).items():
            self.store({place: values})
        self.write_script("id.sh", SCRIPT)

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

    def write_plan(self, plan_bytes):
        (self.monitoring / "conf/queryconf.txt").write_bytes(plan_bytes)

    def write_script(self, name, text):
        path = self.monitoring / "conf/scripts" / name
        path.write_text(text)
        path.chmod(0o700)

    def ask(self, server, *requests):
        """Orders requests, and says in the registry that they wait."""
        server.order(*requests)
        self.store({"Monitoring": {"RequestAvailable": "YES"}})

    def start(self, as_service=False):
        environment = {**self.environment, "LD_PRELOAD": str(PROGRAMS / "kv_long_shim.so"),
                       "KV_LONG_CONTROL": str(self.control.path), "KV_LONG_ROOT": f"{self.tree}/",
                       "KV_LONG_WITNESS": str(self.witness)}
        if as_service:
            self.manager = socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM)
            address = self.folder / "notify"
            address.unlink(missing_ok=True)
            self.manager.bind(str(address))
            environment |= {"NOTIFY_SOCKET": str(address), "INVOCATION_ID": "0" * 32}
        with open(self.folder / "output", "ab") as output:
            self.process = subprocess.Popen([PROGRAMS / "MonitoringAgent", *([] if as_service else ["/t"])],
                                            env=environment, stdout=output, stderr=output, cwd=self.folder)

    def is_running(self):
        return self.process is not None and self.process.poll() is None

    def kill(self):
        if self.process is not None:
            self.process.kill()
            self.process.wait()

    def stop(self, patience=60):
        """Stops it as the service manager does; its exit code."""
        self.process.send_signal(signal.SIGTERM)
        return self.process.wait(patience)

    def remove(self):
        self.kill()
        shutil.rmtree(self.folder, ignore_errors=True)

    def log(self):
        logs = self.monitoring / "logs"
        return "".join(file.read_text("utf-8", "replace") for file in sorted(logs.glob("agent*.log"))) if logs.exists() else ""

    def virtual(self, seconds):
        """Lets so many seconds of the fast clock pass."""
        time.sleep(seconds / self.control.rate)

    def until(self, condition, patience=30, what="what was waited for"):
        """Waits in real seconds."""
        end = time.monotonic() + patience
        while not condition():
            if time.monotonic() > end:
                raise Broken(f"{what} did not come in {patience} s; the log ends:\n{self.log()[-1500:]}\n"
                             f"and its output:\n{(self.folder / 'output').read_text('utf-8', 'replace')[-500:]}")
            time.sleep(0.02)

    def witnessed(self):
        """Name -> the sha256s of the contents that it had when it was complete."""
        seen = {}
        for path in self.witness.iterdir():
            if not path.name.endswith(".part"):
                seen.setdefault(path.name.rsplit(".", 2)[0], set()).add(hashlib.sha256(path.read_bytes()).hexdigest())
        return seen

    def waiting(self):
        """Name -> the sha256s of its copies that wait on the disk."""
        found = {}
        for path in self.data.glob("*.txt"):
            found.setdefault(path.name, set()).add(hashlib.sha256(path.read_bytes()).hexdigest())
        for path in self.zipdata.glob("*.zip"):
            with zipfile.ZipFile(path) as archive:
                for name in archive.namelist():
                    digest = hashlib.sha256(archive.read(name)).hexdigest()
                    found.setdefault(name.rpartition("/")[2], set()).add(digest)
        return found

    def vouch(self, server):
        """Sees that each complete record waits or has arrived, as it was, and under a number of its own; how many there
        were, and how many came twice. The agent does not run meanwhile."""
        seen, waiting = self.witnessed(), self.waiting()
        for name, contents in seen.items():
            arrived = server.records.get(name, {})
            if len(contents) > 1:
                raise Broken(f"the number of {name} was used for {len(contents)} contents")
            if not contents <= waiting.get(name, set()) | set(arrived):
                raise Broken(f"{name} is lost: arrived {bool(arrived)}, waits {name in waiting}")
        for name, contents in server.records.items():
            if len(contents) > 1:
                raise Broken(f"{name} arrived with {len(contents)} contents")
        return len(seen), sum(sum(copies.values()) > 1 for copies in server.records.values())


def settle(agent, server, patience=60):
    """Runs the agent on an honest server and a healthy disk until nothing waits, and vouches."""
    agent.kill()
    server.fault = None
    agent.control.relent()
    agent.write_plan(plan())
    agent.start()
    agent.until(lambda: not any((*agent.data.glob("*.txt"), *agent.zipdata.glob("*.zip"))), patience, "an empty queue")
    agent.kill()
    return agent.vouch(server)
