#!/usr/bin/env python3
"""The long gate: drills of the unchanged programs, an hour at most on two cores. `./test --long` builds and runs it.

  gate.py [DRILL...] [--seed N] [--quick] [--docs]

Without a DRILL all are run, two at a time. --seed repeats a run; --quick does a twentieth of each. The report goes to
build/long/report.md, and with --docs into docs/reliability.md, too. The exit code is 0 if no promise was broken.
"""

import argparse
import concurrent.futures
import datetime
import importlib
import json
import os
import pathlib
import platform
import shutil
import signal
import subprocess
import sys
import tempfile
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
    parser.add_argument("--quick", action="store_true", help="a twentieth of each drill")
    parser.add_argument("--docs", action="store_true", help="also puts the report into docs/reliability.md")
    parser.add_argument("--alone", metavar="FILE", help=argparse.SUPPRESS)  # runs one drill here; its result goes to FILE
    options = parser.parse_args(arguments)
    if unknown := [name for name in options.drills if name not in DRILLS]:
        parser.error(f"unknown drill {unknown[0]}; there are {', '.join(DRILLS)}")
    return options


def run_here(name, options):
    """Runs a drill in this process and writes its result; 1 if it fails."""
    folder = tempfile.mkdtemp(prefix="kvlong-")
    try:
        result = importlib.import_module(name).run(options.seed, options.quick, folder)
    except KeyboardInterrupt:
        return 130
    except Exception as failure:  # also a fault of the drill itself
        told = str(failure) if type(failure).__name__ == "Broken" else traceback.format_exc()
        result = {"title": name, "failure": told}
    finally:
        shutil.rmtree(folder, ignore_errors=True)
    pathlib.Path(options.alone).write_text(json.dumps(result))
    return 1 if "failure" in result else 0


def run_apart(name, options):
    """Runs a drill in a process of its own; its result, with the seconds it took."""
    file = OUTPUT / f"{name}.json"
    file.unlink(missing_ok=True)
    command = [sys.executable, __file__, name, "--seed", str(options.seed), "--alone", str(file)]
    if options.quick:
        command.append("--quick")
    if name in MOUNTS:
        command = ["unshare", "--mount", *([] if os.geteuid() == 0 else ["--user", "--map-root-user"]), *command]
    start = time.monotonic()
    running[name] = subprocess.Popen(command, stdin=subprocess.DEVNULL)
    ended = running[name].wait()
    result = json.loads(file.read_text()) if file.exists() else {"title": name, "failure": f"ended with {ended}"}
    result["seconds"] = time.monotonic() - start
    print(f"{name}: {'FAILED' if 'failure' in result else 'passed'} after {result['seconds']:.0f} s", flush=True)
    return result


def report(results, options, seconds):
    def told(*command):
        return subprocess.run(command, cwd=ROOT, capture_output=True, text=True).stdout.strip()

    changed = " with changes" if told("git", "status", "--porcelain", "--untracked-files=no") else ""
    lines = [f"`./test --long --seed {options.seed}{' --quick' if options.quick else ''}`, "
             f"{datetime.date.today().isoformat()}, at {told('git', 'rev-parse', '--short', 'HEAD')}{changed}; "
             f"{os.cpu_count()} cores, Linux {platform.release().split('-')[0]}, {seconds / 60:.0f} minutes.", ""]
    for result in results:
        lines += [f"**{result['title']}** ({result['seconds']:.0f} s)", ""]
        lines += [f"- {line}" for line in result.get("lines", ["FAILED: " + result.get("failure", "")])] + [""]
    return "\n".join(lines)


def put_into_docs(text):
    page = ROOT / "docs/reliability.md"
    before, _, rest = page.read_text().partition("<!-- report -->\n")
    _, _, after = rest.partition("<!-- end of the report -->")
    page.write_text(f"{before}<!-- report -->\n{text}<!-- end of the report -->{after}")
    if (OUTPUT / "soak.svg").exists():
        shutil.copy(OUTPUT / "soak.svg", ROOT / "docs/soak.svg")


def main():
    options = parse(sys.argv[1:])
    for ending in (signal.SIGINT, signal.SIGTERM):
        signal.signal(ending, signal.default_int_handler)
    if options.alone:
        return run_here(options.drills[0], options)
    OUTPUT.mkdir(parents=True, exist_ok=True)
    drills = options.drills or DRILLS
    print(f"The long gate, seed {options.seed}: {', '.join(drills)}", flush=True)
    start = time.monotonic()
    with concurrent.futures.ThreadPoolExecutor(max_workers=2) as pool:
        try:
            results = list(pool.map(lambda name: run_apart(name, options), drills))
        except KeyboardInterrupt:
            pool.shutdown(wait=False, cancel_futures=True)
            for drill in running.values():
                drill.terminate()
            return 130
    text = report(results, options, time.monotonic() - start)
    (OUTPUT / "report.md").write_text(text)
    print("\n" + text)
    if options.docs:
        put_into_docs(text)
    return 1 if any("failure" in result for result in results) else 0


if __name__ == "__main__":
    sys.exit(main())
