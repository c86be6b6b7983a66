#!/usr/bin/env bash
# Goes the way of docs/running.md from an empty machine to a value at the server, with the packages of build/package
# alone, in a box with its own systemd (tools/boxed_systemd.sh). Takes about 80 seconds, nearly all of them the agent's
# wait before its first upload. If the box cannot be started, it is skipped, or fails when KV_NEEDS_BOX is set.
set -euo pipefail
cd "$(dirname "$0")/../.."
. packaging/box.sh
start_box kvnewcomer

# says WORDS: the last command that ran quietly has said this.
says() { grep -qF -- "$1" "$output" || { cat "$output" >&2; fail "it does not say '$1'"; }; }

# waits SECONDS COMMAND...: until the command succeeds in the box.
waits() {
    local seconds=$1 i
    shift
    for ((i = 0; i < seconds * 5; ++i)); do
        inside "$@" >"$output" 2>&1 && return
        sleep 0.2
    done
    fail "did not come within $seconds seconds: $*"
}

# A server with a certificate of its own, under a name that this machine knows.
quietly dpkg --install "$packages"/kvagent-lab_*.deb
quietly sh -c 'echo 127.0.0.1 cs.example.com >>/etc/hosts'
quietly openssl req -x509 -newkey rsa:2048 -nodes -days 2 -subj /CN=cs.example.com \
    -keyout /var/tmp/key.pem -out /var/tmp/cert.pem
quietly systemd-run --unit=lab kvlab serve --port 8443 --database /var/tmp/lab.db --tls /var/tmp/cert.pem /var/tmp/key.pem

quietly dpkg --install "$packages"/kvagent_*.deb
inside kvagentctl status --plugin >"$output" || true
says KVServerName

quietly kvagentctl setup --server cs.example.com --port 8443 --customer 'Some customer' --office 'Head office'
quietly kvagentctl pin --yes
quietly sh -c 'cd /usr/share/doc/kvagent/examples &&
    cp plan.json /var/lib/kvagent/monitoring/conf/queryconf.txt &&
    cp inodes.sh /var/lib/kvagent/monitoring/conf/scripts/'
quietly kvagentctl check --online
says 'CN=cs.example.com'
quietly kvagentctl collect
says '"Caption"'
says '"Inodes"'
quietly kvagentctl query 'SELECT Caption FROM Win32_OperatingSystem'
says Debian

quietly systemctl restart corvinel-monitoring-agent
waits 120 sh -c 'kvlab records --database /var/tmp/lab.db | grep "\"Inodes\":\[{"'
waits 10 sh -c 'kvlab records --database /var/tmp/lab.db | grep "\"Operating system\":\[{"'
quietly kvagentctl status --plugin
says OK
waits 70 sh -c 'systemctl status corvinel-monitoring-agent | grep "last upload"'
quietly kvagentctl log
says 'Registered with agent key'

quietly dpkg --purge kvagent kvagent-lab
end_box
echo 'A newcomer comes from nothing to a value at the server.'
