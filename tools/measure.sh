#!/usr/bin/env bash
# Builds the release preset and prints what docs/performance.md shows. Takes about six minutes.
set -euo pipefail
cd "$(dirname "$0")/.."

tools/install_packages.sh test
cmake --preset release >/dev/null
cmake --build --preset release -- --quiet
bin=build/release/bin

for bench in bench_log bench_json bench_plan bench_zip bench_unzip bench_snmp_message bench_snmp_walk bench_wmi bench_growth; do
    printf '\n== %s\n' "$bench"
    "$bin/$bench"
done
printf '\n== idle agent\n'
bench/idle_agent.sh "$bin"
