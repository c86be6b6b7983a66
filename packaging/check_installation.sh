#!/usr/bin/env bash
# Installs the packages of build/package in a box with its own systemd (tools/boxed_systemd.sh), and checks the service
# through upgrade, removal and purge. Takes a few seconds. If the box cannot be started, it says why and exits with 0.
set -euo pipefail
cd "$(dirname "$0")/.."
packages=$PWD/build/package
unset KVAGENT_STATE_DIR

fail() { echo "check_installation: $*" >&2; exit 1; }

coproc box { exec tools/boxed_systemd.sh "kvpackage$$" "$packages" 2>"$packages/box.log"; }
box_keeper=$box_PID
read -r first_process <&"${box[0]}" || { echo "The installation is not checked: $(tail -n 1 "$packages/box.log")"; exit 0; }
# The first file is how containers forbid packages to start services. The second has the index of manual pages rebuilt,
# which takes a while.
rm -f "/proc/$first_process/root"/{usr/sbin/policy-rc.d,var/lib/man-db/auto-update}

inside() { nsenter -t "$first_process" -a "$@"; }

# quietly COMMAND...: shows the command's output only if it fails.
quietly() { inside "$@" >"$packages/installation.log" 2>&1 || { cat "$packages/installation.log" >&2; fail "failed: $*"; }; }

# expect OUTPUT COMMAND...: fails unless the command prints this in the box.
expect() {
    local wanted=$1 answer
    shift
    answer=$(inside "$@" 2>&1) || true
    [ "$answer" = "$wanted" ] || fail "$* says '$answer', not '$wanted'"
}

# All that the packages' scripts and the agent could leave behind, without what dpkg and timers keep for themselves.
traces() {
    inside find /etc /var -xdev -printf '%p %M %u:%g %l\n' |
        grep -vE '^/var/(backups/|lib/dpkg/|lib/systemd/timers/|log/dpkg\.log)' | sort
}

show() { inside systemctl show --value --property "$1" kvagent; }

# Kills the agent, and waits until systemd has reacted.
kill_agent() {
    local former
    former=$(show MainPID)
    inside systemctl kill --signal KILL kvagent
    for _ in {1..100}; do
        [[ $(show MainPID) != "$former" && $(show ActiveState) =~ ^(active|failed)$ ]] && return
        sleep 0.05
    done
    fail 'systemd does not react to an agent that was killed'
}

agent=$(echo "$packages"/kvagent_*.deb)
lab=$(echo "$packages"/kvagent-lab_*.deb)
key='Software\Halvorine\Kestrova\KVAgent'
unit=corvinel-monitoring-agent.service
# systemd must not wait before it starts a failed agent again.
quietly mkdir -p /run/systemd/system/$unit.d
quietly sh -c "printf '[Service]\nRestartSec=0\n' >/run/systemd/system/$unit.d/quick.conf"
traces >"$packages/traces"

quietly dpkg --install "$agent" "$lab"
expect active systemctl is-active $unit
expect enabled systemctl is-enabled $unit
expect $unit systemctl show --value --property Id kvagent.service
expect '750 root' stat --format '%a %U' /var/lib/kvagent
expect /var/lib/kvagent/ kvreg get "$key" KVAgentInstallDir

# An upgrade starts the new program, and leaves the settings alone.
quietly kvreg set "$key" KVAgentInstallDir /var/lib/kvagent/./
former=$(show MainPID)
quietly dpkg --install "$agent"
expect active systemctl is-active kvagent
[ "$(show MainPID)" != "$former" ] || fail 'an upgrade does not start the new program'

# There is no limit to starts without failures. After failures the agent is started again twice.
for _ in {1..4}; do quietly systemctl restart kvagent; done
for state in active active failed; do
    kill_agent
    expect $state systemctl is-active kvagent
done

quietly dpkg --remove kvagent
expect '' pgrep MonitoringAgent
quietly dpkg --install "$agent"
expect active systemctl is-active kvagent
expect /var/lib/kvagent/./ kvreg get "$key" KVAgentInstallDir

quietly dpkg --purge kvagent kvagent-lab
expect '' pgrep MonitoringAgent
diff "$packages/traces" <(traces) || fail 'a purge leaves something behind (>), or takes what is not its own (<)'
exec {box[1]}>&-
wait "$box_keeper" || true
echo 'The packages can be installed, upgraded, removed and purged.'
