#!/usr/bin/env bash
# Checks the packages in build/package without installing them: what lintian says, which files are in them, that the
# programs run, that the manual pages and the completion files have all commands and options, and that systemd
# understands the unit. Nothing outside of build/package is changed.
set -euo pipefail
cd "$(dirname "$0")/../build/package"

fail() { echo "check_package: $*" >&2; exit 1; }

root=$PWD/root
rm -rf "$root"
export KVAGENT_STATE_DIR=$root/var/lib/kvagent
export PATH=$root/usr/sbin:$root/usr/bin:$PATH
key='Software\Halvorine\Kestrova\KVAgent'

# check_files PACKAGE: the files outside of /usr/share/doc are those in standard input, with mode and owner.
check_files() {
    diff <(LC_ALL=C sort -k3) <(dpkg-deb --contents "$1"_[0-9]*.deb | sed 's|\./usr/lib/systemd|./lib/systemd|' | awk '!/^d/ && !/\/usr\/share\/doc\// { print $1, $2, $6 }' |
        LC_ALL=C sort -k3) || fail "$1 has other files (>) than it should (<)"
}

# check_told PAGE HELP: the manual page mentions the commands and options that the help text has.
check_told() {
    local page=$1 text words word
    text=$(MANWIDTH=1000 man --local-file --encoding=UTF-8 "$root/usr/share/man/$page.gz" | col -b)
    mapfile -t words < <(
        sed -nE 's/^Usage: (kv[a-z ]*[a-z]) .*/\1/p' <<<"$2"
        grep -oP '(?<![\w/])(--|/)[a-z][a-z-]*|(?<= )-[a-z](?=,)' <<<"$2"
    )
    [ "${#words[@]}" -gt 0 ] || fail "there is nothing to look for in $page"
    for word in "${words[@]}"; do grep -qwF -e "$word" <<<"$text" || fail "$page does not mention $word"; done
}

check_pages() {
    local page topic
    for page in "$root"/usr/share/man/*/*; do
        [ -z "$(MANROFFSEQ='' MANWIDTH=80 man --warnings --local-file -Tutf8 -Z "$page" 2>&1 >/dev/null)" ] ||
            fail "$page cannot be set without warnings"
    done
    check_told man8/MonitoringAgent.8 "$(MonitoringAgent --help)"
    for topic in status check collect query snmp setup pin log; do
        check_told man1/kvagentctl.1 "$(kvagentctl "$topic" --help)"
    done
    for topic in get set delete list watch export import; do check_told man1/kvreg.1 "$(kvreg "$topic" --help)"; done
    for topic in serve records agents request\ {add,list,answers} conf\ push fault\ {set,clear,list}; do
        # shellcheck disable=SC2086 # two words
        check_told man1/kvlab.1 "$(kvlab $topic --help)"
    done
}

# completes WANTED WORD...: bash completes the last word to the wanted ones.
completes() {
    local wanted=$1 program=$2
    shift
    COMP_WORDS=("$@")
    COMP_CWORD=$(($# - 1))
    "_$program" 2>/dev/null # compopt works in completions only
    [ "${COMPREPLY[*]}" = "$wanted" ] || fail "bash completes '$*' to '${COMPREPLY[*]}', not '$wanted'"
}

check_completions() {
    local file
    for file in "$root"/usr/share/bash-completion/completions/*; do
        # shellcheck disable=SC1090 # checked as a program
        . "$file"
    done
    completes 'delete' kvreg d
    completes '--dword' kvreg set key name --d
    completes '' kvreg get --d
    completes 'status snmp setup' kvagentctl s
    completes '--classes --csv' kvagentctl query --c
    completes 'get gnext walk' kvagentctl snmp ''
    completes '--community' kvagentctl snmp get --c
    completes 'records request' kvlab re
    completes 'add answers' kvlab request a
    completes '--database --delay --drop' kvlab fault set --d
    completes '' kvlab serve --port 8
}

# The documents that manual pages and other documents name exist.
check_named_documents() {
    local file
    while IFS= read -r file; do [ -e "$root$file" ] || fail "there is no $file"; done < <(
        zcat -f "$root"/usr/share/man/*/* "$root"/usr/share/doc/*/README* | tr -d '\\' |
            grep -oE '/usr/share/doc/[^ ,]*[a-zA-Z]')
}

check_programs() {
    mkdir -p "$root"/var/lib/kvagent/monitoring/{bin,logs}
    kvreg set "$key" KVAgentInstallDir "$root/var/lib/kvagent/"
    kvreg set "$key" AgentLogLevel 2 --dword
    [ "$(kvreg get "$key" AgentLogLevel)" = 2 ] || fail 'kvreg does not give what it was given'
    local answer
    answer=$(MonitoringAgent /nonsense 2>&1)
    [[ $answer = *"not '/nonsense'"* ]] || fail "MonitoringAgent answers a wrong argument with: $answer"
    MonitoringAgent /monitor || true
    grep -q 'Not able to fetch the KVServerName' "$root/var/lib/kvagent/monitoring/logs/testmonitor.log" ||
        fail 'MonitoringAgent does not say which setting is missing'
}

check_unit() {
    local complaints words units
    units=$(dirname "$(find "$root" -name corvinel-monitoring-agent.service)")
    cp -rn /lib/systemd/system "${units%/*}"
    complaints=$(systemd-analyze verify --root="$root" --man=no corvinel-monitoring-agent.service 2>&1) || true
    [ -z "$complaints" ] || fail "$complaints"
    # The agent starts after the network, and no time limit ends its start.
    for words in UMask=0077 'Wants=.*network-online.target' 'After=.*network-online.target.*' TimeoutStartSec=infinity; do
        grep -qx "$words" "$units/corvinel-monitoring-agent.service" || fail "the unit lacks $words"
    done
    install -D -m 0644 "$root/usr/share/doc/kvagent/examples/hardening.conf" \
        "$root/etc/systemd/system/corvinel-monitoring-agent.service.d/hardening.conf"
    complaints=$(systemd-analyze verify --root="$root" --man=no corvinel-monitoring-agent.service 2>&1) || true
    [ -z "$complaints" ] || fail "with the drop-in: $complaints"
    systemd-analyze security --offline=true --root="$root" --threshold=30 corvinel-monitoring-agent.service \
        >"$root/security" || fail "with the drop-in the service is left with: $(tail -n 1 "$root/security")"
}

# The links of the packages' pages lead to files that one of them holds.
check_links() {
    local page link
    for page in "$root"/usr/share/doc/kvagent*/*.md*; do
        for link in $(zcat -f "$page" | grep -oP '\]\((?!https?:|#)\K[^)#]+'); do
            compgen -G "$root/usr/share/doc/kvagent*/$link*" >"$root/links" || fail "${page##*/} leads to $link"
        done
    done
}

lintian --allow-root --fail-on error,warning --pedantic ./*.changes

check_files kvagent <<'FILES'
-rw-r--r-- root/root ./lib/systemd/system/corvinel-monitoring-agent.service
-rw-r--r-- root/root ./usr/share/bash-completion/completions/kvagentctl
-rw-r--r-- root/root ./usr/share/bash-completion/completions/kvreg
-rw-r--r-- root/root ./usr/share/lintian/overrides/kvagent
-rw-r--r-- root/root ./usr/share/man/man1/kvagentctl.1.gz
-rw-r--r-- root/root ./usr/share/man/man1/kvreg.1.gz
-rw-r--r-- root/root ./usr/share/man/man8/MonitoringAgent.8.gz
-rwxr-xr-x root/root ./usr/bin/kvagentctl
-rwxr-xr-x root/root ./usr/bin/kvreg
-rwxr-xr-x root/root ./usr/sbin/MonitoringAgent
FILES
check_files kvagent-lab <<'FILES'
-rw-r--r-- root/root ./usr/share/bash-completion/completions/kvlab
-rw-r--r-- root/root ./usr/share/man/man1/kvlab.1.gz
-rwxr-xr-x root/root ./usr/bin/kvlab
FILES

for package in kvagent kvagent-lab; do dpkg-deb --extract "$package"_[0-9]*.deb "$root"; done
check_links
check_programs
check_pages
check_completions
check_named_documents
check_unit
rm -rf "$root"
echo 'The packages are as they should be.'
