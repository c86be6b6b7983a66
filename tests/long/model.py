"""Explores the model of store and forward deeply, and runs the agent's own routines along its traces: test_model does it."""

import os
import subprocess

from agent import PROGRAMS, Broken


def run(seed, quick, folder):
    environment = {**os.environ, "TMPDIR": folder, "KV_MODEL_SEED": str(seed), "KV_MODEL_DEPTH": "1" if quick else "2"}
    done = subprocess.run([PROGRAMS / "test_model", "--gtest_brief=1"], env=environment, capture_output=True, text=True)
    if done.returncode != 0:
        raise Broken(f"test_model ended with {done.returncode}:\n{done.stdout[-3000:]}{done.stderr[-1000:]}")
    told = [line for line in done.stdout.splitlines() if " states, " in line or " traces" in line]
    if not told:
        raise Broken("test_model does not tell what it explored")
    return told
