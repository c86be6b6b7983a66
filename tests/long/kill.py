"""Kills the agent at random moments and at every n-th file operation: also while a new plan comes, a request is served, or
it stops. Each record that was complete arrives or waits, as it was, under a number of its own."""

import pathlib
import random
import threading

import agent as long_agent
from agent import CHANGES, KILL_AFTER, KILL_BEFORE, OPENS, RENAMES, UNLINKS, Agent, Broken, plan, script, workflow
from server import Server, answer, reset

ROUNDS = 1000
ROUNDS_OF_A_TREE = 25  # then a new one, so that the oath stays quick
LANES = 3
REACH = 280  # file operations of a round, or somewhat fewer than those

BIG = """#!/bin/sh
read -r id </proc/sys/kernel/random/uuid
printf '{ "AGENTKEY": "%s", "%s": [ { "Id": "%s", "Padding": "' "$1" "$2" "$id"
head -c 150000 /dev/zero | tr '\\0' x
printf '" } ] }'
"""


def plan_number(number):
    return plan(workflow(f"w{number}", [script("One"), script("Big", "big.sh"), script("Two")]),
                workflow("facts", [{"wmiQuery": "SELECT DeviceID, FreeSpace FROM Win32_LogicalDisk", "Name": "Disks"}]))


def mood(server, connection, request):
    """A server that now and then takes an upload and loses its answer, or refuses it."""
    if request.servlet != "FileCollector" or (chance := server.random.random()) > 0.2:
        return False
    if chance < 0.1:
        server.accept(request)
        reset(connection)
    else:
        connection.sendall(answer(503, reason="Busy"))
    return True


class Tree:
    """One installation and its server, killed again and again."""

    def __init__(self, folder, chance):
        self.random = chance
        self.server = Server()
        self.server.random = chance
        self.server.fault = mood
        self.agent = Agent(folder, self.server.port)
        self.agent.write_script("big.sh", BIG)
        self.plans = [plan_number(0)]
        self.agent.write_plan(self.plans[0])

    def begin(self, event):
        """Prepares what the kill is to meet."""
        if event == "plan":
            self.plans.append(plan_number(len(self.plans)))
            self.agent.ask(self.server, {"AGENT_REQUEST_ID": "1", "REQUEST_TYPE": "DOWNLOAD_QUERYCONF", "AGENT_KEY": "LONG1",
                                         "DOWNLOAD_URL": self.server.offer_plan(self.plans[-1])})
        elif event == "request":
            self.agent.ask(self.server, {"AGENT_REQUEST_ID": "1", "REQUEST_TYPE": "TEST_MONITOR", "RESPONSE_NEEDED": "YES",
                                         "MONITOR_NAME": "Load", "WMIQUERY": "SELECT * FROM Win32_OperatingSystem"})
        self.agent.start(as_service=event == "stop")

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
        return control.get("struck") > 0

    def wait(self, seconds):
        """Until then, or its end."""
        try:
            self.agent.process.wait(seconds)
        except Exception as end:
            if type(end).__name__ != "TimeoutExpired":
                raise

    def strike(self, operation):
        if operation is None:
            return
        names_only = OPENS | RENAMES | UNLINKS
        self.agent.control.strike(self.random.choice((KILL_BEFORE, KILL_AFTER)), begin=operation,
                                  kinds=self.random.choice((CHANGES, names_only)))

    def check(self):
        """What a stranger sees after a kill."""
        in_use = (self.agent.monitoring / "conf/queryconf.txt")
        if not in_use.exists():
            in_use = self.agent.monitoring / "conf/queryconf_backup.txt"
        if in_use.read_bytes() not in self.plans:
            raise Broken(f"the plan {in_use.name} is neither old nor new")
        return self.agent.vouch(self.server)

    def close(self):
        self.agent.remove()
        self.server.close()


def run_lane(folder, seed, lane, rounds, totals):
    done = 0
    while done < rounds:
        chance = random.Random(f"{seed}/{lane}/{done}")
        tree = Tree(pathlib.Path(folder) / f"kill-{lane}-{done}", chance)
        try:
            for round_ in range(done, min(done + ROUNDS_OF_A_TREE, rounds)):
                event = chance.choice(("nothing", "nothing", "plan", "request", "stop"))
                operation = None if round_ % 2 else (lane + round_ // 2 * LANES) % REACH
                tree.begin(event)
                totals["operation"] += tree.kill(event, operation)
                totals[event] += 1
                try:
                    tree.check()
                except Broken as broken:
                    raise Broken(f"kill, seed {seed}, lane {lane}, round {round_}, at {event}, operation {operation}: {broken}")
            records, twice = long_agent.settle(tree.agent, tree.server)
            totals["records"] += records
            totals["twice"] += twice
        finally:
            tree.close()
        done += ROUNDS_OF_A_TREE


def run(seed, quick, folder):
    rounds = ROUNDS // (20 if quick else 1) // LANES + 1
    totals = dict.fromkeys(("nothing", "plan", "request", "stop", "operation", "records", "twice"), 0)
    failures = []

    def lane(number):
        try:
            run_lane(folder, seed, number, rounds, totals)
        except Exception as failure:
            failures.append(failure)

    threads = [threading.Thread(target=lane, args=(number,), daemon=True) for number in range(LANES)]
    for thread in threads:
        thread.start()
    for thread in threads:
        thread.join()
    if failures:
        raise failures[0]
    kills = rounds * LANES
    if totals["operation"] < kills // 4 or totals["records"] < kills:
        raise Broken(f"kill, seed {seed}: it struck too seldom to mean anything: {totals}")
    return {"title": "Kills", "lines": [
        f"{kills} rounds of SIGKILL: {totals['operation']} at a chosen file operation, the others at a random moment; "
        f"{totals['plan']} while a new plan came, {totals['request']} while a request was served, {totals['stop']} in a stop",
        f"{totals['records']} records were complete: 0 lost, 0 overwritten, no number used for two contents; "
        f"{totals['twice']} came twice (a server that takes an upload and loses its answer is among the rounds)"]}
