#!/usr/bin/env bash
# Runs a command that starts Windows programs with wine64, which it finds on its PATH. It has a separate Wine prefix, made if
# it is missing, whose services run as long as the command. The caller's own Wine is not touched. Only one command at a time
# uses a prefix; the next waits.
# Usage: tools/in_wine.sh COMMAND...    KV_WINE_PREFIX names a prefix other than build/wine
set -euo pipefail

fail() { echo "in_wine: $*" >&2; exit 1; }

root=$(cd "$(dirname "$0")/.." && pwd)
export WINEPREFIX
WINEPREFIX=$(realpath -m "${KV_WINE_PREFIX:-$root/build/wine}")
export PATH=/usr/lib/wine:$PATH WINEDEBUG=-all WINEARCH=win64 WINEDLLOVERRIDES='mscoree,mshtml='
# Without a screen no window can wait for someone to press a button.
unset DISPLAY WAYLAND_DISPLAY

command -v wine64 >/dev/null || fail 'wine64 is not installed (tools/install_packages.sh windows)'
begun=$WINEPREFIX/kvagent-prefix
[ -e "$begun" ] || [ -z "$(ls -A "$WINEPREFIX" 2>/dev/null)" ] || fail "$WINEPREFIX holds something else"
mkdir -p "$WINEPREFIX"
touch "$begun"
exec 4>"$begun"
flock 4

if [ ! -e "$WINEPREFIX/made" ]; then
    timeout 120 wine64 wineboot.exe -i >/dev/null 2>&1 </dev/null 4<&- || fail "Wine cannot make a prefix in $WINEPREFIX"
    wineserver64 -w
    touch "$WINEPREFIX/made"
fi

# Wine starts its services with the first program and ends them with the last. This program stays, so that tests need not
# wait for the services: it waits for a line from a pipe to which nobody writes.
mkfifo "$WINEPREFIX/never.$$"
exec 3<>"$WINEPREFIX/never.$$"
rm "$WINEPREFIX/never.$$"
wine64 cmd.exe /c 'set /p line=' >/dev/null 2>&1 <&3 3<&- 4<&- &
staying=$!
leave() {
    wineserver64 -k || true
    wait "$staying" 2>/dev/null || true
}
trap leave EXIT
trap 'exit 130' INT
trap 'exit 143' TERM

# Returns when the services are up. If the command had to start them, they would hold its output open as long as they run.
timeout 120 wine64 cmd.exe /c exit >/dev/null 2>&1 </dev/null 3<&- 4<&- || fail "Wine does not start in $WINEPREFIX"

"$@" 3<&- 4<&-
