#!/usr/bin/env python3
"""The long gate: drills of the unchanged programs, two at a time, an hour at most on two cores; `./test --long` runs it.

The report goes to build/long/report.md. The exit code is 0 if no promise was broken.
"""

import argparse
import concurrent.futures
import contextlib
import datetime
import importlib
import json
import os
import pathlib
import platform
import re
import shutil
import signal
import subprocess
import sys
import tempfile
import threading
import time
import traceback

ROOT = pathlib.Path(__file__).parents[2]
OUTPUT = ROOT / "build/long"
DRILLS = ("soak", "kill", "disk", "servers", "clock", "hostile", "model")  # the longest first
running = {}  # name -> process
MOUNTS = ("disk",)  # drills that mount file systems of their own, which nobody else sees


def parse(arguments):
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("drills", nargs="*", metavar="DRILL", help=", ".join(DRILLS))
    parser.add_argument("--seed", type=int, default=int(time.time()) % 1_000_000, help="repeats a run")
    parser.add_argument("--quick", action="store_true", help="a small part of most drills, some minutes")
    parser.add_argument("--docs", action="store_true", help="also puts the report into docs/reliability.md")
    parser.add_argument("--alone", metavar="FOLDER", help=argparse.SUPPRESS)  # runs one drill in this process and folder
    options = parser.parse_args(arguments)
    if unknown := [name for name in options.drills if name not in DRILLS]:
        parser.error(f"unknown drill {unknown[0]}; there are {', '.join(DRILLS)}")
    return options


def run_here(name, options):
    """Runs a drill in this process, which a fault of the drill in any thread ends, and writes down its lines."""
    def end(failure):
        threading.__excepthook__(failure)
        os._exit(3)

    threading.excepthook = end
    folder = pathlib.Path(options.alone)
    try:
        result = {"lines": importlib.import_module(name).run(options.seed, options.quick, folder)}
    except Exception as failure:
        is_broken = type(failure).__name__ == "Broken"
        result = {"failure": f"seed {options.seed}: {failure}" if is_broken else traceback.format_exc()}
    (folder / "result.json").write_text(json.dumps(result))


def run_apart(name, options):
    """Runs a drill in a process group of its own, and ends whatever it leaves behind; its result, with the seconds it took."""
    start = time.monotonic()
    with tempfile.TemporaryDirectory(prefix="kvlong-", ignore_cleanup_errors=True) as folder:
        command = [sys.executable, __file__, name, "--seed", str(options.seed), "--alone", folder, *["--quick"] * options.quick]
        if name in MOUNTS:
            command = ["unshare", "--mount", *([] if os.geteuid() == 0 else ["--user", "--map-root-user"]), *command]
        running[name] = subprocess.Popen(command, stdin=subprocess.DEVNULL, start_new_session=True)
        ended = running[name].wait()
        kill(running.pop(name))
        file = pathlib.Path(folder) / "result.json"
        result = json.loads(file.read_text()) if file.exists() else {"failure": f"the drill ended with {ended}"}
    result |= {"title": name.capitalize(), "seconds": time.monotonic() - start}
    outcome = f"FAILED: {result['failure']}" if "failure" in result else "passed"
    print(f"{name}: {outcome} after {result['seconds']:.0f} s", flush=True)
    return result


def kill(drill):
    with contextlib.suppress(ProcessLookupError):
        os.killpg(drill.pid, signal.SIGKILL)


def report(results, options, seconds):
    def told(*command):
        return subprocess.run(command, cwd=ROOT, capture_output=True, text=True).stdout.strip()

    changed = " with changes" if told("git", "status", "--porcelain", "--untracked-files=no") else ""
    lines = [f"`./test --long --seed {options.seed}{' --quick' if options.quick else ''}`, "
             f"{datetime.date.today().isoformat()}, at {told('git', 'rev-parse', '--short', 'HEAD')}{changed}; "
             f"{os.cpu_count()} cores, Linux {platform.release().split('-')[0]}, {seconds / 60:.0f} minutes.", ""]
    for result in results:
        lines += [f"**{result['title']}** ({result['seconds']:.0f} s)", ""]
        lines += [f"- {line}" for line in result.get("lines") or ["FAILED: " + result["failure"]]] + [""]
    return "\n".join(lines)


def put_into_docs(text):
    page = ROOT / "docs/reliability.md"
    place = re.compile("(<!-- report -->\n).*(<!-- end of the report -->)", re.S)
    page.write_text(place.sub(lambda marks: marks[1] + text + marks[2], page.read_text()))
    if (OUTPUT / "soak.svg").exists():
        shutil.copy(OUTPUT / "soak.svg", ROOT / "docs/soak.svg")


def main():
    options = parse(sys.argv[1:])
    if options.alone:
        return run_here(options.drills[0], options)
    signal.signal(signal.SIGTERM, signal.default_int_handler)
    OUTPUT.mkdir(parents=True, exist_ok=True)
    drills = options.drills or DRILLS
    print(f"The long gate, seed {options.seed}: {', '.join(drills)}", flush=True)
    start = time.monotonic()
    with concurrent.futures.ThreadPoolExecutor(max_workers=2) as pool:
        try:
            results = list(pool.map(lambda name: run_apart(name, options), drills))
        except KeyboardInterrupt:
            pool.shutdown(wait=False, cancel_futures=True)
            for drill in list(running.values()):
                kill(drill)
            return 130
    text = report(results, options, time.monotonic() - start)
    (OUTPUT / "report.md").write_text(text)
    print("\n" + text)
    if options.docs:
        put_into_docs(text)
    return 1 if any("failure" in result for result in results) else 0


if __name__ == "__main__":
    sys.exit(main())
