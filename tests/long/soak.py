"""Thirty days of the agent's clock: ten workflows, a plan a day, an outage a night, small logs that rotate. What the process
and its folder hold at each midnight is drawn; it has to be flat."""

import json
import pathlib
import statistics

from agent import Agent, Broken, plan, script, workflow
from server import answer
from snmp_device import HONEST, Device, oid

DAYS = 30
RATE = 2000
HOUR, DAY = 3600, 86400
OUTAGE = (1, 2, 3)  # hours of each night
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


class Soak(Agent):
    def __init__(self, folder):
        settings = {"": {"LoggerMaxSize": 100000, "LoggerMaxFiles": 4}, "Monitoring": {"writeInterval": 300}}
        super().__init__(folder, RATE, settings)
        self.device = Device([HONEST] * 2)
        self.server.snmp_timeout = RATE  # a second of the device's clock
        self.server.fault, self.is_out, self.struck = self.outage, False, 0
        self.write_plan(ten_workflows(0, self.device.port))
        self.midnights = []

    def outage(self, request):
        if not self.is_out:
            return False
        self.struck += 1
        if self.struck % 2:
            request.reset()
        else:
            request.send(answer(503, reason="Down"))
        return True

    def measure(self):
        files = [path for path in self.monitoring.rglob("*") if path.is_file()]
        return (*self.usage(), len(files), sum(path.stat().st_size for path in files if path.suffix == ".log") / 1024,
                sum(path.suffix in (".txt", ".zip") and path.parent.name in ("data", "zipdata") for path in files))

    def wait_until(self, moment):
        while (left := moment - self.control.wall()) > 0:
            self.virtual(min(left, RATE))

    def live(self, days):
        first = self.control.wall() // DAY * DAY + DAY
        self.control.turn(first - self.control.wall())
        self.start()
        for day in range(days):
            midnight, content = first + day * DAY, ten_workflows(day + 1, self.device.port)
            for hour in range(24):
                self.wait_until(midnight + hour * HOUR)
                self.is_out = hour in OUTAGE
                if hour >= 9 and self.plan() != content:  # beside a busy machine a list comes too late now and then
                    self.order_plan(content)
            self.wait_until(midnight + DAY)
            if self.plan() != content:
                raise Broken(f"the plan of day {day} is not in use")
            self.midnights.append(self.measure())

    def grown(self):
        """What grew more than it may, between the days after the first five and the last third."""
        third = len(self.midnights) // 3
        for name, allowed, values in zip(MEASURES, MEASURES.values(), zip(*self.midnights)):
            before, after = statistics.median(values[5:-third]), statistics.median(values[-third:])
            if after - before > allowed:
                yield f"{name} went from {before:.1f} to {after:.1f}"


def plot(midnights):
    """An SVG: a panel for each measure, a line over the days."""
    width, panel, step = 720, 96, 648 / max(1, len(midnights) - 1)
    drawn = ""
    for number, (name, values) in enumerate(zip(MEASURES, zip(*midnights))):
        bottom, high = (number + 1) * panel, max(*values, 1) * 1.15
        points = " ".join(f"{56 + day * step:.1f},{bottom - 72 * value / high:.1f}" for day, value in enumerate(values))
        drawn += f"""<text x="56" y="{bottom - 78}" font-weight="bold">{name}</text>
<path d="M56 {bottom}H704M56 {bottom - 72}V{bottom}" stroke="#999" fill="none"/>
<text x="50" y="{bottom}" text-anchor="end">0</text><text x="50" y="{bottom - 64}" text-anchor="end">{high:.0f}</text>
<polyline points="{points}" fill="none" stroke="#1f6feb" stroke-width="1.5"/>
"""
    days = "".join(f'<text x="{56 + day * step:.0f}" y="{bottom + 16}">{day + 1}</text>' for day in range(0, len(midnights), 5))
    return f"""<svg xmlns="http://www.w3.org/2000/svg" viewBox="0 0 {width} {bottom + 24}" font-size="11"
 font-family="sans-serif" role="img" aria-label="What the agent held at each midnight">
<rect width="100%" height="100%" fill="#fff"/>{drawn}{days}<text x="704" y="{bottom + 16}" text-anchor="end">day</text>
</svg>
"""


def run(seed, quick, folder):
    days = 3 if quick else DAYS
    soak = Soak(folder)
    soak.live(days)
    lost = json.loads((soak.monitoring / "logs/status.json").read_text())["counts"]["recordsLost"]
    totals = soak.settle()
    (pathlib.Path(__file__).parents[2] / "build/long/soak.svg").write_text(plot(soak.midnights))
    grown = [] if quick else list(soak.grown())
    if lost or grown:
        raise Broken(f"{lost} records were lost; {'; '.join(grown)}")
    if totals["records"] < RUNS_A_DAY * days / 2:
        raise Broken(f"{totals['records']} records came in {days} days, {RUNS_A_DAY * days:.0f} were due")
    return [
        f"{days} days of the agent's clock at {RATE} times its pace: ten workflows, a new plan each day, a server that is away "
        f"for three hours each night ({soak.struck} requests failed), logs of 100 kB that rotate",
        f"{totals['records']} records were complete: 0 lost; {totals['twice']} came twice. {RUNS_A_DAY * days:.0f} were due: a "
        "millisecond of this machine is two seconds of that clock, so runs and answers come late",
        "at the midnights, least to most: " + ", ".join(f"{name} {min(values):.0f} to {max(values):.0f}"
                                                        for name, values in zip(MEASURES, zip(*soak.midnights)))]
