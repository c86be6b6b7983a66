"""A disk that is full, nearly full, without inodes, read-only, slow, over its quota, or fails: the agent lives, goes on by
itself once the disk is well, its plan and registry are old or new, and each record that was complete arrives."""

import contextlib
import errno
import os
import pathlib
import random
import signal
import subprocess
import time

from agent import (CHANGES, FAIL, MAKES_FOLDER, OPENS, READS, RENAMES, SLOW, SYNCS, UNLINKS, WRITE_HALF, WRITES, Agent, Broken,
                   settle)
from kill import plan_number
from server import AGENT_KEY, Server

ROUNDS = 300
ROUNDS_OF_A_TREE = 15
SIZE = 6 << 20
SLOW_DISK = pathlib.Path(__file__).with_name("slow_disk.py")
TAKES_SPACE = OPENS | WRITES | MAKES_FOLDER


class Disk:
    """A file system of a few megabytes in memory, on which the agent's tree stands; with `slowed` below one of FUSE that
    can make each operation wait."""

    def __init__(self, folder, slowed):
        self.tree = folder / "agent"
        self.place = folder / "disk" if slowed else self.tree
        self.place.mkdir(parents=True)
        subprocess.run(["mount", "-t", "tmpfs", "-o", f"size={SIZE},nr_inodes=400", "long-gate", self.place], check=True)
        self.delay = folder / "delay" if slowed else None
        if slowed:
            self.wait(0)
            self.tree.mkdir()
            self.slow_disk = subprocess.Popen([SLOW_DISK, self.place, self.tree, self.delay])
            while not os.path.ismount(self.tree):
                if self.slow_disk.poll() is not None:
                    raise RuntimeError(f"{SLOW_DISK} ended with {self.slow_disk.returncode}")
                time.sleep(0.02)

    def wait(self, seconds):
        """Lets each operation of a slowed disk wait."""
        self.delay.write_text(str(seconds))

    def fill(self, left):
        """Takes all room but so many bytes."""
        filler = self.place / "filler"
        subprocess.run(["dd", "if=/dev/zero", f"of={filler}", "bs=4096"], stderr=subprocess.DEVNULL)  # until it is full
        os.truncate(filler, max(0, filler.stat().st_size - left))

    def take_inodes(self, left):
        (self.place / "inodes").mkdir()
        with contextlib.suppress(OSError):  # the agent took one meanwhile
            for number in range(os.statvfs(self.place).f_favail - left):
                (self.place / "inodes" / str(number)).touch()

    def remount(self, how):
        subprocess.run(["mount", "-o", f"remount,{how}", self.place], check=True)

    def heal(self):
        if self.delay:
            self.wait(0)
        self.remount("rw")
        (self.place / "filler").unlink(missing_ok=True)
        subprocess.run(["rm", "-rf", self.place / "inodes"], check=True)

    def close(self):
        if self.delay:
            subprocess.run(["umount", "-l", self.tree], check=True)
            self.slow_disk.wait()
        subprocess.run(["umount", "-l", self.place], check=True)


# name, what is done to the tree for a while; each is given the tree and a source of chance
def full(tree, chance):
    tree.disk.fill(0)


def nearly_full(tree, chance):
    tree.disk.fill(chance.randrange(1, 60) * 4096)


def without_inodes(tree, chance):
    tree.disk.take_inodes(chance.choice((0, 0, 1, 2, 5)))


def read_only(tree, chance):
    # From its start; a running agent keeps files open for writing, which holds a remount off, and FUSE closes them late.
    if not tree.disk.delay and chance.random() < 0.5:
        tree.agent.kill()
        tree.disk.remount("ro")
        tree.agent.start()
    else:
        tree.agent.control.strike(FAIL, errno.EROFS)


def slow(tree, chance):
    if tree.disk.delay:
        tree.disk.wait(chance.uniform(0.001, 0.01))
    else:
        tree.agent.control.strike(SLOW, chance.randrange(1, 20) * 1_000_000, per_million=300_000, kinds=CHANGES | READS)


def over_quota(tree, chance):
    tree.agent.control.strike(FAIL, errno.EDQUOT, kinds=TAKES_SPACE, per_million=chance.choice((1_000_000, 300_000)))


def writes_half(tree, chance):
    tree.agent.control.strike(WRITE_HALF, errno.ENOSPC, kinds=WRITES, per_million=chance.choice((1_000_000, 300_000)))


def failing(tree, chance):
    kinds = chance.choice((CHANGES, CHANGES | READS, WRITES | SYNCS, RENAMES | UNLINKS, OPENS))
    tree.agent.control.strike(FAIL, errno.EIO, kinds=kinds, per_million=chance.choice((1_000_000, 200_000, 50_000)),
                              seed=chance.randrange(1 << 30))


FAULTS = (full, nearly_full, without_inodes, read_only, slow, over_quota, writes_half, failing)


class Tree:
    def __init__(self, folder, server, slowed):
        self.disk = Disk(folder, slowed)
        self.server = server
        self.agent = Agent(folder, server.port, settings={"": {"LoggerMaxSize": 100000, "LoggerMaxFiles": 5}})
        self.agent.write_big_script("head -c 150000 /dev/zero | tr '\\0' x")
        self.plans = [plan_number(0)]
        self.agent.write_plan(self.plans[0])
        self.agent.start()
        self.agent.until(self.agent.witnessed, "a first record")

    def order_plan(self):
        self.plans.append(plan_number(len(self.plans)))
        self.agent.ask_for_plan(self.server, self.plans[-1])

    def suffer(self, fault, chance):
        """The fault for up to four minutes of the agent's clock, which one in ten times is stopped in the midst of it."""
        fault(self, chance)
        self.agent.virtual(chance.uniform(30, 240))
        self.check("while it lasts")
        if chance.random() < 0.1:
            self.agent.kill()

    def recover(self):
        self.agent.control.relent()
        self.disk.heal()
        if not self.agent.is_running():
            self.agent.start()
        self.agent.goes_on(self.server, "on the disk that is well again")
        self.check("once it is over")
        kept = [self.agent.setting("ServerInfo", "KVServerSecurePort"), self.agent.setting("Monitoring", "MonitoringAgentKey")]
        if kept != [str(self.server.port), AGENT_KEY]:
            raise Broken(f"the registry has {kept}")

    def check(self, when):
        self.agent.process.send_signal(signal.SIGSTOP)
        try:
            if self.agent.plan() not in self.plans:
                raise Broken(f"the plan is neither old nor new {when}")
            self.agent.vouch(self.server)
        finally:
            self.agent.process.send_signal(signal.SIGCONT)


def run(seed, quick, folder):
    rounds = ROUNDS // (20 if quick else 1)
    has_fuse = os.access("/dev/fuse", os.R_OK | os.W_OK)
    records = twice = 0
    for start in range(0, rounds, ROUNDS_OF_A_TREE):
        chance = random.Random(f"{seed}/{start}")
        tree = Tree(folder / f"disk-{start}", Server(), has_fuse and start // ROUNDS_OF_A_TREE % 2 == 0)
        for round_ in range(start, min(start + ROUNDS_OF_A_TREE, rounds)):
            fault = FAULTS[round_ % len(FAULTS)]
            try:
                if chance.random() < 0.3:
                    tree.order_plan()
                tree.suffer(fault, chance)
                tree.recover()
            except Broken as broken:
                raise Broken(f"round {round_}, {fault.__name__}: {broken}")
        settled = settle(tree.agent, tree.server)
        records, twice = records + settled[0], twice + settled[1]
        tree.server.close()
        tree.disk.close()
        tree.agent.remove()
    return [
        f"{rounds} rounds of {', '.join(fault.__name__.replace('_', ' ') for fault in FAULTS)} in turn",
        "full, without inodes and read-only from the start are a real file system of 6 MiB; "
        f"{'half of the slow ones are a real one of FUSE; ' if has_fuse else ''}"
        "the others, quota, half a write and EIO come from the preloaded library, operation by operation",
        f"the agent lived and went on by itself in each; {records} records were complete, 0 lost; {twice} came twice; plan and "
        "registry were old or new"]
