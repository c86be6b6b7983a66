# Sourced by the scripts that install the packages of build/package in a box with its own systemd
# (tools/boxed_systemd.sh), from the root of the tree.

packages=$PWD/build/package
unset KVAGENT_STATE_DIR

fail() { echo "${0##*/}: $*" >&2; exit 1; }

# start_box NAME: boots the box. If it cannot be started, says "skipped" and why, and ends the script with 0; with 1 when
# KV_NEEDS_BOX is set.
start_box() {
    coproc box { exec tools/boxed_systemd.sh "$1$$" "$packages" 2>"$packages/$1.log"; }
    box_keeper=$box_PID
    output=$packages/$1.out
    if ! read -r first_process <&"${box[0]}"; then
        local reason
        reason="a box with systemd cannot be started: $(tail -n 1 "$packages/$1.log")"
        [ -z "${KV_NEEDS_BOX:-}" ] || fail "$reason; KV_NEEDS_BOX is set"
        echo "${0##*/}: skipped: $reason"
        exit 0
    fi
    # The first file is how containers forbid packages to start services. The second has the index of manual pages
    # rebuilt, which takes a while.
    rm -f "/proc/$first_process/root"/{usr/sbin/policy-rc.d,var/lib/man-db/auto-update}
    # systemd must not wait before it starts a failed agent again.
    quietly mkdir -p /run/systemd/system/corvinel-monitoring-agent.service.d
    quietly sh -c "printf '[Service]\nRestartSec=0\n' >/run/systemd/system/corvinel-monitoring-agent.service.d/quick.conf"
}

end_box() {
    exec {box[1]}>&-
    wait "$box_keeper" || true
}

inside() { nsenter -t "$first_process" -a "$@"; }

# quietly COMMAND...: shows the command's output only if it fails. The output is left in the file $output.
quietly() { inside "$@" >"$output" 2>&1 || { cat "$output" >&2; fail "failed: $*"; }; }

# expect OUTPUT COMMAND...: fails unless the command prints this in the box.
expect() {
    local wanted=$1 answer
    shift
    answer=$(inside "$@" 2>&1) || true
    [ "$answer" = "$wanted" ] || fail "$* says '$answer', not '$wanted'"
}
