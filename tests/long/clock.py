"""Sets the clock back and forth, runs through the ends of its counts, and suspends the machine: records and uploads go on."""

import calendar
import signal
import time

from agent import SECOND, Agent, Broken, plan, script, workflow

MINUTE, HOUR, DAY, YEAR = 60, 3600, 86400, 31_557_600
STEPS = [sign * size for size in (1, 2, 59, HOUR, 25 * HOUR, 40 * DAY, YEAR, 30 * YEAR) for sign in (-1, 1)]
# a moment, and what ends there; the agent is started a minute before it
MOMENTS = {
    "the last second of signed 32 bits": 2**31, "the last second of unsigned 32 bits": 2**32,
    "February of 2100": calendar.timegm((2100, 2, 28, 24, 0, 0)), "the year 2038": calendar.timegm((2038, 1, 1, 0, 0, 0)),
    "a leap day": calendar.timegm((2028, 2, 29, 24, 0, 0)), "the epoch": MINUTE + 1,
}


class Watch(Agent):
    """An agent with a workflow of one minute, and what comes of it after each change of its clock."""

    def __init__(self, folder):
        super().__init__(folder)
        self.write_plan(plan(workflow("w", [script("One")]), workflow("v", [script("Two")], interval=2)))
        self.worst = 0.0

    def goes_on(self, what):
        self.worst = max(self.worst, super().goes_on(f"after {what}") / MINUTE)

    def steps(self):
        self.start()
        self.goes_on("a start")
        for step in STEPS:
            self.control.turn(step)
            self.goes_on(f"a step of {step} s")
            if step < 0 and step % HOUR == 0:  # and a start at a time before that of its own files
                self.kill()
                self.start()
                self.goes_on(f"a start after a step of {step} s")
        self.kill()

    def moments(self):
        for name, moment in MOMENTS.items():
            self.control.turn(moment - MINUTE - self.control.wall())
            self.start()
            self.goes_on(f"a start before {name}")
            self.until(lambda: self.control.wall() > moment + MINUTE, "the moment")
            self.goes_on(name)
            self.kill()
        self.control.turn(time.time() - self.control.wall())

    def sleep(self):
        """Stopped by a signal; then suspended for hours, in which the monotonic clock stands still."""
        self.start()
        self.goes_on("a start")
        for seconds in (0.2, 1.5):
            self.process.send_signal(signal.SIGSTOP)
            time.sleep(seconds)
            self.process.send_signal(signal.SIGCONT)
            self.goes_on(f"{seconds} s of SIGSTOP")
        for hours in (1, 8, 24 * 20):
            records = len(self.witnessed())
            self.control.asleep += hours * HOUR * SECOND
            self.control.turn(hours * HOUR)
            self.goes_on(f"{hours} hours of sleep")
            self.virtual(3 * MINUTE)
            if (burst := len(self.witnessed()) - records) > 100:
                raise Broken(f"{burst} records came at once after {hours} hours of sleep")
        self.kill()


def run(seed, quick, folder):
    watch = Watch(folder / "clock")
    for part in (watch.steps, watch.moments, watch.sleep):
        part()
        watch.vouch()
    totals = watch.settle()
    return [
        f"{len(STEPS)} steps of the clock by 1 second to 30 years, back and forth, and starts before the times of its files; "
        f"{len(MOMENTS)} moments run through ({', '.join(MOMENTS)}); SIGSTOP, and sleep of 1 hour, 8 hours and 20 days",
        f"a record and an upload came after each within {watch.worst:.1f} minutes of its clock (the plan has one a minute); "
        f"{totals['records']} records, 0 lost, {totals['twice']} came twice"]
