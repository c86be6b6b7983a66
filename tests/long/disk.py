"""A disk that is full, nearly full, without inodes, read-only, slow, over its quota, or fails: the agent lives, goes on by
itself once the disk is well, its plan and registry are old or new, and each record that was complete arrives."""

import collections
import contextlib
import errno
import os
import pathlib
import random
import signal
import subprocess
import time

from agent import (CHANGES, FAIL, MAKES_FOLDER, OPENS, READS, RENAMES, SECOND, SLOW, SYNCS, UNLINKS, WRITE_HALF, WRITES,
                   Agent, Broken, during)
from kill import BIG, plan_number
from server import AGENT_KEY

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


# What is done to the tree for a while, which is given with a source of chance.
FAULTS = {
    "full": lambda tree, chance: tree.disk.fill(0),
    "nearly full": lambda tree, chance: tree.disk.fill(chance.randrange(1, 60) * 4096),
    "without inodes": lambda tree, chance: tree.disk.take_inodes(chance.choice((0, 0, 1, 2, 5))),
    "read-only": lambda tree, chance: tree.become_read_only(chance.random() < 0.5),
    "slow": lambda tree, chance: tree.become_slow(chance.uniform(0.001, 0.01)),
    "over its quota": lambda tree, chance: tree.control.strike(FAIL, errno.EDQUOT, kinds=TAKES_SPACE,
                                                               per_million=chance.choice((1_000_000, 300_000))),
    "writing half": lambda tree, chance: tree.control.strike(WRITE_HALF, errno.ENOSPC, kinds=WRITES,
                                                             per_million=chance.choice((1_000_000, 300_000))),
    "failing": lambda tree, chance: tree.control.strike(
        FAIL, errno.EIO, kinds=chance.choice((CHANGES, CHANGES | READS, WRITES | SYNCS, RENAMES | UNLINKS, OPENS)),
        per_million=chance.choice((1_000_000, 200_000, 50_000)), seed=chance.randrange(1 << 30)),
}


class Tree(Agent):
    def __init__(self, folder, slowed):
        self.disk = Disk(folder, slowed)
        super().__init__(folder, settings={"": {"LoggerMaxSize": 100000, "LoggerMaxFiles": 5}})
        self.write_script("big.sh", BIG)
        self.write_plan(plan_number(0))
        self.start()
        self.until(self.witnessed, "a first record")

    def become_read_only(self, at_start):
        # A running agent keeps files open for writing, which holds a remount off, and FUSE closes them late.
        if at_start and not self.disk.delay:
            self.kill()
            self.disk.remount("ro")
            self.start()
        else:
            self.control.strike(FAIL, errno.EROFS)

    def become_slow(self, seconds):
        if self.disk.delay:
            self.disk.wait(seconds)
        else:
            self.control.strike(SLOW, int(seconds * SECOND), per_million=300_000, kinds=CHANGES | READS)

    def round(self, fault, chance):
        """The fault for up to four minutes of the agent's clock, which one in ten times is stopped in the midst of it."""
        if chance.random() < 0.3:
            self.order_plan(plan_number(len(self.plans)))
        fault(self, chance)
        self.virtual(chance.uniform(30, 240))
        self.check()
        if chance.random() < 0.1:
            self.kill()
        self.control.relent()
        self.disk.heal()
        if not self.is_running():
            self.start()
        self.goes_on("on the disk that is well again")
        self.check()
        kept = [self.setting("ServerInfo", "KVServerSecurePort"), self.setting("Monitoring", "MonitoringAgentKey")]
        if kept != [str(self.server.port), AGENT_KEY]:
            raise Broken(f"the registry has {kept}")

    def check(self):
        self.process.send_signal(signal.SIGSTOP)
        os.waitid(os.P_PID, self.process.pid, os.WSTOPPED | os.WEXITED | os.WNOWAIT)  # until its last thread stands still
        self.see_running()
        self.check_plan()
        self.vouch()
        self.process.send_signal(signal.SIGCONT)


def run(seed, quick, folder):
    rounds = ROUNDS // (20 if quick else 1)
    has_fuse = os.access("/dev/fuse", os.R_OK | os.W_OK)
    totals = collections.Counter()
    for start in range(0, rounds, ROUNDS_OF_A_TREE):
        chance = random.Random(f"{seed}/{start}")
        tree = Tree(folder / f"disk-{start}", has_fuse and start // ROUNDS_OF_A_TREE % 2 == 0)
        for number in range(start, min(start + ROUNDS_OF_A_TREE, rounds)):
            name = list(FAULTS)[number % len(FAULTS)]
            with during(lambda: f"round {number}, {name}"):
                tree.round(FAULTS[name], chance)
        totals += tree.settle()
        tree.disk.close()
        tree.remove()
    return [
        f"{rounds} rounds on a disk that is in turn {', '.join(FAULTS)}",
        "full, without inodes and read-only from the start are a real file system of 6 MiB; "
        f"{'half of the slow ones are a real one of FUSE; ' if has_fuse else ''}"
        "the others, quota, half a write and EIO come from the preloaded library, operation by operation",
        f"the agent lived and went on by itself in each; {totals['records']} records were complete, 0 lost, {totals['twice']} "
        "came twice; plan and registry were old or new"]
