#!/bin/sh
# The processes that hold the most memory; the fifth argument says how many.
. "$(dirname "$0")/record.sh"

for status in /proc/[0-9]*/status; do
    awk '/^Name:/ { name = $2 } /^Pid:/ { pid = $2 } /^VmRSS:/ { rss = $2 } /^Threads:/ { threads = $2 }
         END { if (rss) printf "%s\t%s\t%s\t%s\n", name, pid, rss, threads }' "$status" 2>/dev/null
done | sort -t '	' -k 3,3nr | head -n "${5:-10}" | record Name ProcessId WorkingSetKB Threads
