#!/usr/bin/env bash
# A real systemd for tests, in a box: systemd-nspawn over an overlay of /, with its own processes, mounts, control
# groups and loopback. Nothing outside of the box is changed.
#
#   boxed_systemd.sh NAME FOLDER
#
# Boots (in about half a second), prints the process id of the box's first process, and ends the box when its standard
# input ends, so that no box outlives whoever started it. FOLDER is shared, under the same path. If the box cannot be
# started, it says why on standard error and exits with 1. No other box may have the same NAME at the same time.
#
# Needs root and Debian's packages systemd, systemd-container, dbus and procps.
set -euo pipefail
name=$1 folder=$2

# All mounts are in a separate namespace, which goes away with its last process.
[ "${KV_BOX_MOUNTS:-}" = own ] || KV_BOX_MOUNTS=own exec unshare --mount bash "$0" "$@"

groups=()
for base in /sys/fs/cgroup /sys/fs/cgroup/unified /sys/fs/cgroup/systemd; do
    [ ! -e "$base/cgroup.procs" ] || groups+=("$base/$name")
done
[ ${#groups[@]} -gt 0 ] || { echo "there are no control groups" >&2; exit 1; }

finish() {
    # When the box's first process ends, so do all others, and then nspawn.
    if [ -n "$(jobs -rp)" ]; then pkill -KILL -P "$nspawn" || kill -KILL "$nspawn"; fi
    wait
    # A group is busy until the kernel has removed its last process.
    for _ in {1..500}; do
        find "${groups[@]}" -depth -type d -exec rmdir {} + 2>/dev/null
        ls -d "${groups[@]}" >/dev/null 2>&1 || break
        sleep 0.01
    done
}
trap 'set +e; finish' EXIT
trap 'exit 1' HUP INT TERM

# Hides /run, where nspawn leaves traces of boxes.
mount -t tmpfs -o size=512m tmpfs /run
mkdir /run/{upper,work,root}
mount -t overlay overlay -o lowerdir=/,upperdir=/run/upper,workdir=/run/work /run/root
: >/run/root/etc/machine-id
# Started instead of what the machine starts.
cat >/run/root/etc/systemd/system/box.target <<'UNIT'
[Unit]
Requires=basic.target dbus.service
Wants=systemd-logind.service
After=basic.target dbus.service systemd-logind.service
UNIT

mkdir -p "${groups[@]}"
(
    for group in "${groups[@]}"; do echo "$BASHPID" >"$group/cgroup.procs"; done
    exec setpriv --pdeathsig TERM systemd-nspawn -q -D /run/root --machine="$name" --register=no --keep-unit \
        --console=pipe --private-network --bind="$folder" --resolv-conf=off --timezone=off \
        -b systemd.unit=box.target </dev/null >&2
) &
nspawn=$!

for _ in {1..1000}; do
    kill -0 "$nspawn" 2>/dev/null || exit 1
    leader=$(pgrep -P "$nspawn" -x systemd || true)
    if [ -n "$leader" ] && nsenter -t "$leader" -a systemctl is-active -q box.target 2>/dev/null; then
        echo "$leader"
        while read -r; do :; done
        exit 0
    fi
    sleep 0.03
done
echo "the box did not boot in time" >&2
exit 1
