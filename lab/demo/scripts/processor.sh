#!/bin/sh
# Processor model, number of processors and load averages.
. "$(dirname "$0")/record.sh"

model=$(sed -n 's/^model name[[:space:]]*: //p' /proc/cpuinfo | head -n 1)
count=$(grep -c '^processor' /proc/cpuinfo)
read -r one five fifteen _ </proc/loadavg
printf '%s\t%s\t%s\t%s\t%s\n' "$model" "$count" "$one" "$five" "$fifteen" |
    record Model Processors Load1 Load5 Load15
