#!/usr/bin/env bash
# Runs a command that starts Windows programs with wine64, which it finds on its PATH: in a Wine prefix of its own, made where
# it is missing, whose services run as long as the command does. Nothing of the caller's own Wine is touched. One command at a
# time uses a prefix; the next waits.
# Usage: tools/in_wine.sh COMMAND...    KV_WINE_PREFIX names another prefix than build/wine
set -euo pipefail

fail() { echo "in_wine: $*" >&2; exit 1; }

root=$(cd "$(dirname "$0")/.." && pwd)
export WINEPREFIX
WINEPREFIX=$(realpath -m "${KV_WINE_PREFIX:-$root/build/wine}")
export PATH=/usr/lib/wine:$PATH WINEDEBUG=-all WINEARCH=win64 WINEDLLOVERRIDES='mscoree,mshtml='
# Without a screen: no window can ever wait for a button.
unset DISPLAY WAYLAND_DISPLAY

command -v wine64 >/dev/null || fail 'wine64 is not installed (tools/install_packages.sh windows)'
begun=$WINEPREFIX/kvagent-prefix
[ -e "$begun" ] || [ -z "$(ls -A "$WINEPREFIX" 2>/dev/null)" ] || fail "$WINEPREFIX holds something else"
mkdir -p "$WINEPREFIX"
touch "$begun"
exec 4>"$begun"
flock 4

if [ ! -e "$WINEPREFIX/made" ]; then
    timeout 120 wine64 wineboot.exe -i >/dev/null 2>&1 </dev/null 4<&- || fail "Wine makes no prefix in $WINEPREFIX"
    wineserver64 -w
    touch "$WINEPREFIX/made"
fi

# Wine starts its services with the first program and ends them with the last. With one that stays, a test need not wait for
# them. It waits for a line from a pipe that nobody writes to, and leaves with the prefix.
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

# Ends when the services are up. Had the command to start them, they would hold its output open for as long as they run.
timeout 120 wine64 cmd.exe /c exit >/dev/null 2>&1 </dev/null 3<&- 4<&- || fail "Wine does not start in $WINEPREFIX"

"$@" 3<&- 4<&-
