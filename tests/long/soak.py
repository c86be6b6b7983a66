"""Thirty days of the agent's clock: ten workflows, a plan a day, an outage a night, small logs that rotate. What the process
and its folder hold at each midnight is drawn; it has to be flat."""

import json
import pathlib
import statistics
import time

from agent import Agent, Broken, plan, script, settle, workflow
from server import Server, answer
from snmp_device import HONEST, Device, oid

DAYS = 30
RATE = 2000
HOUR, DAY = 3600, 86400
OUTAGE = (1 * HOUR, 4 * HOUR)  # of each night
MEASURES = {"resident memory, MiB": 6.0, "descriptors": 3, "threads": 3, "files below monitoring/": 12, "logs, KiB": 300,
            "records that wait": 0}  # name -> by how much the last ten days may lie above the days before


def ten_workflows(day, port):
    """Three scripts, five queries, two polls; the day's plan is told by its first name."""
    poll = {"PROTOCOL": "SPOLL", "DEVICE_NAME": "127.0.0.1", "SNMP_PORT": str(port), "SNMP_VERSION": "v2c",
            "COMMUNITY": "public", "AGENT_KEY": "DEVICE1", "IS_MULTIPLE_POLLED_DATA": "true"}
    classes = ("OperatingSystem", "LogicalDisk", "Process", "PerfFormattedData_PerfOS_Processor", "NetworkAdapterConfiguration")
    return plan(
        *(workflow(f"script {number} of day {day}", [script(f"Script{number}")], 20 + 20 * number) for number in range(3)),
        *(workflow(name, [{"wmiQuery": f"SELECT * FROM Win32_{name}", "Name": name}], 30) for name in classes),
        *(workflow(f"poll {number}", [{**poll, "OID": oid(number), "POLL_ID": str(number), "POLICY_NAME": f"Poll{number}"}], 30)
          for number in range(2)))


RUNS_A_DAY = DAY / 60 * (1 / 20 + 1 / 40 + 1 / 60 + 7 / 30)


def outage(request):
    if not request.server.is_out:
        return False
    request.server.struck += 1
    if request.server.struck % 2:
        request.reset()
    else:
        request.send(answer(503, reason="Down"))
    return True


def measure(agent):
    files = [path for path in agent.monitoring.rglob("*") if path.is_file()]
    return (*agent.usage(), len(files), sum(path.stat().st_size for path in files if path.suffix == ".log") / 1024,
            sum(path.suffix in (".txt", ".zip") and path.parent.name in ("data", "zipdata") for path in files))


class Soak:
    def __init__(self, folder):
        self.device = Device([HONEST] * 2)
        self.server = Server()
        self.server.fault, self.server.is_out, self.server.struck = outage, False, 0
        self.server.snmp_timeout = RATE  # a second of the device's clock
        self.agent = Agent(folder / "soak", self.server.port, RATE,
                           settings={"": {"LoggerMaxSize": 100000, "LoggerMaxFiles": 4}, "Monitoring": {"writeInterval": 300}})
        self.agent.write_plan(ten_workflows(0, self.device.port))
        self.midnights = []

    def wait_until(self, moment):
        while (left := moment - self.agent.control.wall()) > 0:
            self.agent.virtual(min(left, RATE))

    def live(self, days):
        first = self.agent.control.wall() // DAY * DAY + DAY
        self.agent.control.turn(first - self.agent.control.wall())
        self.agent.start()
        for day in range(days):
            midnight = first + day * DAY
            for hour, is_out in zip(OUTAGE, (True, False)):
                self.wait_until(midnight + hour)
                self.server.is_out = is_out
            for hour in range(9, 24):  # beside a busy machine a list comes too late for this clock now and then
                self.wait_until(midnight + hour * HOUR)
                if self.agent.plan() != (content := ten_workflows(day + 1, self.device.port)):
                    self.agent.ask_for_plan(self.server, content)
            self.wait_until(midnight + DAY)
            self.midnights.append(measure(self.agent))
        if self.agent.plan() != ten_workflows(days, self.device.port):
            raise Broken("the plan of the last day is not in use")

    def grown(self):
        """What grew more than it may, between the days after the first five and the last third."""
        third = len(self.midnights) // 3
        for name, allowed, values in zip(MEASURES, MEASURES.values(), zip(*self.midnights)):
            before, after = statistics.median(values[5:-third]), statistics.median(values[-third:])
            if after - before > allowed:
                yield f"{name} went from {before:.1f} to {after:.1f}"


def plot(midnights):
    """An SVG: a panel for each measure, a line over the days."""
    width, panel, left = 720, 96, 56
    parts = [f'<svg xmlns="http://www.w3.org/2000/svg" viewBox="0 0 {width} {panel * len(MEASURES) + 24}" font-size="11" '
             'font-family="sans-serif" role="img" aria-label="What the agent held at each midnight of thirty days">',
             '<rect width="100%" height="100%" fill="#fff"/>']
    step = (width - left - 16) / max(1, len(midnights) - 1)
    for number, (name, values) in enumerate(zip(MEASURES, zip(*midnights))):
        top, bottom, high = number * panel + 24, (number + 1) * panel, max(*values, 1) * 1.15
        points = " ".join(f"{left + day * step:.1f},{bottom - (bottom - top) * value / high:.1f}"
                          for day, value in enumerate(values))
        parts += [f'<text x="{left}" y="{top - 6}" font-weight="bold">{name}</text>',
                  f'<path d="M{left} {bottom}H{width - 16}M{left} {top}V{bottom}" stroke="#999" fill="none"/>',
                  f'<text x="{left - 6}" y="{bottom}" text-anchor="end">0</text>',
                  f'<text x="{left - 6}" y="{top + 8}" text-anchor="end">{high:.0f}</text>',
                  f'<polyline points="{points}" fill="none" stroke="#1f6feb" stroke-width="1.5"/>']
    bottom = panel * len(MEASURES) + 16
    parts += [f'<text x="{left + day * step:.0f}" y="{bottom}" text-anchor="middle">{day + 1}</text>'
              for day in range(0, len(midnights), 5)]
    return "\n".join(parts) + f'\n<text x="{width - 16}" y="{bottom}" text-anchor="end">day</text>\n</svg>\n'


def run(seed, quick, folder):
    days = 3 if quick else DAYS
    soak = Soak(folder)
    soak.live(days)
    counts = json.loads((soak.agent.monitoring / "logs/status.json").read_text())["counts"]
    records, twice = settle(soak.agent, soak.server)
    output = pathlib.Path(__file__).parents[2] / "build/long"
    output.mkdir(parents=True, exist_ok=True)
    (output / "soak.svg").write_text(plot(soak.midnights))
    grown = [] if quick else list(soak.grown())
    if counts["recordsLost"] or grown:
        raise Broken(f"{counts['recordsLost']} records were lost; {'; '.join(grown)}")
    if records < RUNS_A_DAY / 2 * days:
        raise Broken(f"{records} records came in {days} days, {RUNS_A_DAY * days:.0f} were due")
    columns = list(zip(*soak.midnights))
    return [
        f"{days} days of the agent's clock at {RATE} times its pace: ten workflows, a new plan each day, a server that is away for "
        f"three hours each night ({soak.server.struck} requests failed), logs of 100 kB that rotate",
        f"{records} records were complete: 0 lost; {RUNS_A_DAY * days:.0f} runs were due, and {twice} records came twice, because a "
        "millisecond of this machine is two seconds of that clock: runs begin late, and some answers come too late",
        "at the midnights, least to most: " + ", ".join(f"{name} {min(values):.0f} to {max(values):.0f}"
                                                        for name, values in zip(MEASURES, columns))]
