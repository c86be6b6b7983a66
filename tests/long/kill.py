"""Kills the agent at random moments and at every n-th file operation: also while a new plan comes, a request is served, or
it stops. Each record that was complete arrives or waits, as it was, under a number of its own."""

import collections
import concurrent.futures
import contextlib
import random
import subprocess

from agent import CHANGES, KILL_AFTER, KILL_BEFORE, OPENS, RENAMES, UNLINKS, Agent, Broken, plan, script, settle, workflow
from server import Server, answer, test_monitor

ROUNDS = 1000
ROUNDS_OF_A_TREE = 25  # then a new one, so that the oath stays quick
LANES = 3
REACH = 280  # file operations of a round, or somewhat fewer than those


def plan_number(number):
    return plan(workflow(f"w{number}", [script("One"), script("Big", "big.sh"), script("Two")]),
                workflow("facts", [{"wmiQuery": "SELECT DeviceID, FreeSpace FROM Win32_LogicalDisk", "Name": "Disks"}]))


def mood(request):
    """A server that now and then takes an upload and loses its answer, or refuses it."""
    if request.kind != "upload" or (chance := request.server.random.random()) > 0.2:
        return False
    if chance < 0.1:
        request.server.accept(request)
        request.reset()
    else:
        request.send(answer(503, reason="Busy"))
    return True


class Tree:
    """One installation and its server, killed again and again."""

    def __init__(self, folder, chance):
        self.random = chance
        self.server = Server()
        self.server.random = chance
        self.server.fault = mood
        self.agent = Agent(folder, self.server.port)
        self.agent.write_big_script("head -c 150000 /dev/zero | tr '\\0' x")
        self.plans = [plan_number(0)]
        self.agent.write_plan(self.plans[0])

    def begin(self, event):
        """Prepares what the kill is to meet."""
        if event == "plan":
            self.plans.append(plan_number(len(self.plans)))
            self.agent.ask_for_plan(self.server, self.plans[-1])
        elif event == "request":
            self.agent.ask(self.server, test_monitor())
        self.agent.start()

    def kill(self, event, operation):
        """At a moment of the first 1.4 s, or at an operation counted from the start, or from the order to stop."""
        control, process = self.agent.control, self.agent.process
        if event == "stop":
            self.wait(self.random.uniform(0.2, 1.2))
            self.strike(None if operation is None else operation % 20)
            process.terminate()
            self.wait(self.random.uniform(0, 0.03) if operation is None else 1)
        else:
            self.strike(operation)
            self.wait(self.random.uniform(0.01, 1.4) if operation is None else 1.6)
        self.agent.kill()
        control.relent()
        return operation is not None and control.get("struck") > 0

    def wait(self, seconds):
        """Until then, or its end."""
        with contextlib.suppress(subprocess.TimeoutExpired):
            self.agent.process.wait(seconds)

    def strike(self, operation):
        if operation is None:
            return
        names_only = OPENS | RENAMES | UNLINKS
        self.agent.control.strike(self.random.choice((KILL_BEFORE, KILL_AFTER)), begin=operation,
                                  kinds=self.random.choice((CHANGES, names_only)))

    def check(self):
        """What a stranger sees after a kill."""
        if self.agent.plan() not in self.plans or self.agent.plan("backup/queryconf.txt") not in (None, *self.plans):
            raise Broken("the plan or its backup is neither old nor new")
        self.agent.vouch(self.server)


def run_tree(tree, lane, rounds, totals):
    for round_ in rounds:
        event = tree.random.choice(("nothing", "nothing", "plan", "request", "stop"))
        operation = None if round_ % 2 else (lane + round_ // 2 * LANES) % REACH
        try:
            tree.begin(event)
            totals["operation"] += tree.kill(event, operation)
            totals[event] += 1
            tree.check()
        except Broken as broken:
            raise Broken(f"lane {lane}, round {round_}, at {event}, operation {operation}: {broken}")
    records, twice = settle(tree.agent, tree.server)
    totals.update(records=records, twice=twice)
    tree.agent.remove()
    tree.server.close()


def run(seed, quick, folder):
    rounds = ROUNDS // (20 if quick else 1) // LANES + 1

    def run_lane(lane):
        totals = collections.Counter()
        for start in range(0, rounds, ROUNDS_OF_A_TREE):
            tree = Tree(folder / f"kill-{lane}-{start}", random.Random(f"{seed}/{lane}/{start}"))
            run_tree(tree, lane, range(start, min(start + ROUNDS_OF_A_TREE, rounds)), totals)
        return totals

    with concurrent.futures.ThreadPoolExecutor(LANES) as pool:
        totals = sum(pool.map(run_lane, range(LANES)), collections.Counter())
    kills = rounds * LANES
    if totals["operation"] < kills // 10 or totals["records"] < kills:
        raise Broken(f"it struck too seldom to mean anything: {totals}")
    return [
        f"{kills} rounds of SIGKILL: {totals['operation']} at a chosen file operation, the others at a random moment; "
        f"{totals['plan']} while a new plan came, {totals['request']} while a request was served, {totals['stop']} in a stop",
        f"{totals['records']} records were complete: 0 lost, 0 overwritten, no number used for two contents; "
        f"{totals['twice']} came twice (a server that takes an upload and loses its answer is among the rounds)"]
