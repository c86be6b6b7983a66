#!/usr/bin/env bash
# Builds the release preset and prints what docs/performance.md shows. Takes about six minutes.
set -euo pipefail
cd "$(dirname "$0")/.."

tools/install_packages.sh test
cmake --preset release >/dev/null
cmake --build --preset release -- --quiet
bin=build/release/bin

mapfile -t benchmarks <build/release/benchmarks.txt
for bench in "${benchmarks[@]}"; do
    printf '\n== %s\n' "$bench"
    "$bin/$bench"
done
printf '\n== idle agent\n'
bench/idle_agent.sh "$bin"
