#!/usr/bin/env bash
# Installs the packages of build/package in a box with its own systemd (tools/boxed_systemd.sh), and checks the service
# through upgrade, removal and purge. Takes a few seconds. If the box cannot be started, it is skipped, or fails when
# KV_NEEDS_BOX is set.
set -euo pipefail
cd "$(dirname "$0")/.."
. packaging/box.sh
start_box kvpackage

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

# The agent runs with the hardening drop-in, too. What it writes is the superuser's alone.
quietly sh -c "install -D -m 0644 /usr/share/doc/kvagent/examples/hardening.conf /etc/systemd/system/$unit.d/hardening.conf &&
    systemctl daemon-reload; systemctl reset-failed $unit; systemctl restart $unit"
expect active systemctl is-active $unit
expect yes systemctl show --value --property NoNewPrivileges $unit
expect 600 stat --format %a /var/lib/kvagent/monitoring/logs/agent.log
quietly sh -c "rm -r /etc/systemd/system/$unit.d && systemctl daemon-reload"

quietly dpkg --remove kvagent
expect '' pgrep MonitoringAgent
quietly dpkg --install "$agent"
expect active systemctl is-active kvagent
expect /var/lib/kvagent/./ kvreg get "$key" KVAgentInstallDir

quietly sh -c 'mkdir -p /var/lib/kvagent/monitoring/bin/data && echo {} >/var/lib/kvagent/monitoring/bin/data/Agent_LAB1_1.txt'
quietly dpkg --purge kvagent kvagent-lab
grep -q 'with 1 records and 0 zips' "$output" || fail 'a purge does not say what it deletes'
expect '' pgrep MonitoringAgent
diff "$packages/traces" <(traces) || fail 'a purge leaves something behind (>), or takes what is not its own (<)'
end_box
echo 'The packages can be installed, upgraded, removed and purged.'
