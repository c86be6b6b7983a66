#!/bin/sh
# Memory and swap in KiB.
. "$(dirname "$0")/record.sh"

awk '{ value[$1] = $2 }
     END { printf "%s\t%s\t%s\t%s\n", value["MemTotal:"], value["MemAvailable:"], value["SwapTotal:"], value["SwapFree:"] }' \
    /proc/meminfo | record TotalKB AvailableKB SwapTotalKB SwapFreeKB
