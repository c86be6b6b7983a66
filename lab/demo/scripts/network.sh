#!/bin/sh
# Bytes and packets of each network interface since it came up.
. "$(dirname "$0")/record.sh"

sed -n 's/^ *\([^:]*\): */\1 /p' /proc/net/dev |
    awk '{ printf "%s\t%s\t%s\t%s\t%s\n", $1, $2, $3, $10, $11 }' |
    record Interface BytesReceived PacketsReceived BytesSent PacketsSent
