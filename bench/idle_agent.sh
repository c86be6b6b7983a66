#!/usr/bin/env bash
# What an idle agent costs: ten workflows with a script a minute, a lab server over plain HTTP, watched for some minutes.
# Prints its proportional set size against the limit of 7 MB and its processor time, outside its scripts, against 0.2 % of
# one core.
#
#   bench/idle_agent.sh [BIN_DIRECTORY [SECONDS]]
set -euo pipefail
cd "$(dirname "$0")/.."

bin=${1:-build/release/bin}
seconds=${2:-150}
folder=$(mktemp -d)
export KVAGENT_STATE_DIR=$folder/state
pids=()
finish() {
    for pid in "${pids[@]}"; do kill "$pid" 2>/dev/null || true; done
    for pid in "${pids[@]}"; do wait "$pid" 2>/dev/null || true; done
    rm -rf "$folder"
}
trap finish EXIT

mkdir -p "$folder"/monitoring/{bin,logs} "$folder/monitoring/conf/scripts" "$KVAGENT_STATE_DIR"
cp lab/demo/scripts/*.sh "$folder/monitoring/conf/scripts/"
python3 - "$folder/monitoring/conf/queryconf.txt" <<'PY'
import json, sys
flow = lambda i: {"wfname": f"flow {i}", "interval": 1, "recordSetName": [
    {"script": "memory.sh", "Name": f"Memory{i}", "params": "", "response_needed": "true"}]}
open(sys.argv[1], "wb").write(json.dumps({"WorkFlows": [flow(i) for i in range(10)]}).encode("utf-16-le"))
PY

"$bin/kvlab" serve --port 0 --database "$folder/lab.db" >"$folder/kvlab.out" &
pids+=($!)
until address=$(grep -som1 'http://[^ ]*' "$folder/kvlab.out"); do sleep 0.1; done
port=${address##*:}

key='Software\Halvorine\Kestrova\KVAgent'
"$bin/kvreg" set "$key" KVAgentInstallDir "$folder/"
for name in CustomerName RemoteOfficeName; do "$bin/kvreg" set "$key" $name Bench; done
for name in KVServerName KVServerFlatName KVServerIPAddress KVLastAccessName; do
    "$bin/kvreg" set "$key\\ServerInfo" $name 127.0.0.1
done
"$bin/kvreg" set "$key\\ServerInfo" KVServerSecurePort "${port%%/*}"
"$bin/kvreg" set "$key\\ServerInfo" KVServerProtocol http
"$bin/kvreg" set "$key\\Monitoring" writeInterval 60 --dword

"$bin/MonitoringAgent" /t >/dev/null 2>&1 &
agent=$!
pids+=("$agent")

# Processor time of the agent itself in clock ticks, without its scripts.
ticks() { awk '{ print $14 + $15 }' "/proc/$agent/stat"; }
# Memory in kB, by the names of smaps_rollup.
memory() { awk -v names="^($1):" '$1 ~ names { sum += $2 } END { print sum }' "/proc/$agent/smaps_rollup"; }

sleep 5
first=$(ticks)
sleep "$seconds"
used=$(($(ticks) - first))
records=$("$bin/kvlab" records --database "$folder/lab.db" | wc -l)
pss=$(memory Pss)
private=$(memory 'Private_Clean|Private_Dirty')

awk -v pss="$pss" -v private="$private" -v ticks="$used" -v hz="$(getconf CLK_TCK)" -v seconds="$seconds" -v records="$records" 'BEGIN {
    share = 100 * ticks / hz / seconds
    printf "proportional set size   %6.2f MB     limit 7 MB      ratio %.2f\n", pss / 1024, pss / 1024 / 7
    printf "private of it           %6.2f MB\n", private / 1024
    printf "processor, own          %6.3f %%      limit 0.2 %%     ratio %.2f   (%d s, %d records accepted)\n", share, share / 0.2, seconds, records
}'
