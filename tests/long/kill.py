"""Kills the agent at random moments and at every n-th file operation: also while a new plan comes, a request is served, or
it stops. Each record that was complete arrives or waits, as it was, under a number of its own."""

import collections
import concurrent.futures
import contextlib
import random
import subprocess

from agent import CHANGES, KILL_AFTER, KILL_BEFORE, OPENS, RENAMES, UNLINKS, Agent, Broken, during, plan, script, workflow
from server import answer, test_monitor

ROUNDS = 1000
ROUNDS_OF_A_TREE = 25  # then a new one, so that the oath stays quick
LANES = 3
REACH = 280  # file operations of a round, or somewhat fewer than those
BIG = "head -c 150000 /dev/zero | tr '\\0' x"


def plan_number(number):
    return plan(workflow(f"w{number}", [script("One"), script("Big", "big.sh"), script("Two")]),
                workflow("facts", [{"wmiQuery": "SELECT DeviceID, FreeSpace FROM Win32_LogicalDisk", "Name": "Disks"}]))


class Tree(Agent):
    """An agent that is killed again and again."""

    def __init__(self, folder, seed):
        super().__init__(folder)
        self.random, self.moods = random.Random(seed), random.Random(f"{seed}/server")
        self.server.fault = self.mood
        self.write_script("big.sh", BIG)
        self.write_plan(plan_number(0))

    def mood(self, request):
        """The server now and then takes an upload and loses its answer, or refuses it."""
        if request.kind != "upload" or (chance := self.moods.random()) > 0.2:
            return False
        if chance < 0.1:
            self.server.accept(request)
            request.reset()
        else:
            request.send(answer(503, reason="Busy"))
        return True

    def round(self, event, operation):
        """A start, and a kill at a moment of the first 1.4 s, or at an operation counted from the start, or from the order
        to stop. Whether that operation came."""
        if event == "plan":
            self.order_plan(plan_number(len(self.plans)))
        elif event == "request":
            self.ask(test_monitor())
        self.start()
        if event == "stop":
            self.wait(self.random.uniform(0.2, 1.2))
            self.strike(operation and operation % 20)
            self.process.terminate()
            self.wait(self.random.uniform(0, 0.03) if operation is None else 1)
        else:
            self.strike(operation)
            self.wait(self.random.uniform(0.01, 1.4) if operation is None else 1.6)
        self.kill()
        self.control.relent()
        self.check_plan()
        self.vouch()
        return operation is not None and self.control.struck > 0

    def wait(self, seconds):
        """Until then, or its end."""
        with contextlib.suppress(subprocess.TimeoutExpired):
            self.process.wait(seconds)

    def strike(self, operation):
        if operation is not None:
            self.control.strike(self.random.choice((KILL_BEFORE, KILL_AFTER)), begin=operation,
                                kinds=self.random.choice((CHANGES, OPENS | RENAMES | UNLINKS)))


def run(seed, quick, folder):
    rounds = ROUNDS // (20 if quick else 1) // LANES + 1

    def run_lane(lane):
        totals = collections.Counter()
        for round_ in range(rounds):
            if round_ % ROUNDS_OF_A_TREE == 0:
                tree = Tree(folder / f"kill-{lane}-{round_}", f"{seed}/{lane}/{round_}")
            event = tree.random.choice(("nothing", "nothing", "plan", "request", "stop"))
            operation = None if round_ % 2 else (lane + round_ // 2 * LANES) % REACH
            with during(lambda: f"lane {lane}, round {round_}, at {event}, operation {operation}"):
                totals.update(["rounds", event, *["operation"] * tree.round(event, operation)])
            if round_ % ROUNDS_OF_A_TREE == ROUNDS_OF_A_TREE - 1 or round_ == rounds - 1:
                totals += tree.settle()
                tree.remove()
        return totals

    with concurrent.futures.ThreadPoolExecutor(LANES) as pool:
        totals = sum(pool.map(run_lane, range(LANES)), collections.Counter())
    if totals["operation"] < totals["rounds"] // 10 or totals["records"] < totals["rounds"]:
        raise Broken(f"it struck too seldom to mean anything: {totals}")
    return [
        f"{totals['rounds']} rounds of SIGKILL: {totals['operation']} at a chosen file operation, the others at random; "
        f"{totals['plan']} while a new plan came, {totals['request']} while a request was served, {totals['stop']} in a stop",
        f"{totals['records']} records were complete: 0 lost, 0 overwritten, no number used for two contents; "
        f"{totals['twice']} came twice (a server that takes an upload and loses its answer is among the rounds)"]
