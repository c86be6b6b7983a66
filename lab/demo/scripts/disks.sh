#!/bin/sh
# Local file systems, sizes in KiB.
. "$(dirname "$0")/record.sh"

df -lPk -x tmpfs -x devtmpfs 2>/dev/null | awk 'NR > 1 { printf "%s\t%s\t%s\t%s\t%s\n", $1, $6, $2, $4, $5 }' |
    record Device MountPoint SizeKB FreeKB Used
