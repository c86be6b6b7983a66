#!/usr/bin/env bash
# Prints how many lines of each folder the tests run, as a table for docs. Builds the tree with clang's counters and runs
# the whole suite: eleven minutes on two cores. All of it stays in build/coverage.
#
# The counters are files that the programs map (LLVM's continuous mode): one that is killed, or leaves by _Exit as the
# agent does, has counted up to that moment. Runs of one program share a file.
# Usage: tools/coverage.sh [--files]    --files: also the files of a folder below 85 %, those that miss the most first
set -euo pipefail
cd "$(dirname "$0")/.."
out=build/coverage

tools/install_packages.sh test
cmake --preset coverage >/dev/null
cmake --build --preset coverage -j2 -- --quiet
rm -rf "$out/profiles"
mkdir -p "$out/profiles"
chmod 1777 "$out/profiles" # some tests run programs as another user
ctest --preset coverage -j2 --timeout 600 >"$out/ctest.log" || tail -n 20 "$out/ctest.log" >&2

llvm-profdata merge -sparse --failure-mode=all -o "$out/tests.profdata" "$out"/profiles/*.profraw
objects=()
for program in "$out"/bin/*; do objects+=(-object "$program"); done
llvm-cov export -summary-only -instr-profile="$out/tests.profdata" "${objects[@]}" >"$out/coverage.json"
python3 - "$out/coverage.json" "${1:-}" <<'PYTHON'
import collections, json, os, sys

files = {}
for file in json.load(open(sys.argv[1]))["data"][0]["files"]:
    name = os.path.relpath(file["filename"])
    if not name.startswith(("../", "tests/", "build/")):
        files[name] = (file["summary"]["lines"]["count"], file["summary"]["lines"]["covered"])
folders = collections.defaultdict(lambda: [0, 0])
for name, (count, covered) in files.items():
    for key in (name.split("/")[0], "all"):
        folders[key][0] += count
        folders[key][1] += covered
print("| folder | lines | run by a test |\n|---|---:|---:|")
for folder in sorted(folders, key=lambda key: (key == "all", key)):
    count, covered = folders[folder]
    print(f"| {folder} | {count:,} | {100 * covered / count:.1f} % |")
print("\nNot counted: platform/windows/, which is not built here; what only the build and the packages run, such as")
print("commandline/describe.cpp; and what runs where build/coverage cannot be written.")
if sys.argv[2] == "--files":
    print()
    for name, (count, covered) in sorted(files.items(), key=lambda item: item[1][1] - item[1][0]):
        folder = folders[name.split("/")[0]]
        if folder[1] < 0.85 * folder[0] and covered < count:
            print(f"{name}: {count - covered} of {count} lines not run")
PYTHON
