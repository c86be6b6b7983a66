#!/usr/bin/env bash
# Lists the free routines that headers declare, each with how often the system's sources and the tests name it, besides
# its declaration and its definition. A routine without callers is either part of a listed interface or should go.
#
#   tools/list_callers.sh [FOLDER...]     foundation, queryconf and jsontext by default
set -euo pipefail
cd "$(dirname "$0")/.."

case "${1:-}" in
    -h | --help) sed -n '2,5s/^# \{0,1\}//p' "$0"; exit 0 ;;
esac
[ $# -gt 0 ] || set -- foundation queryconf jsontext

count() { { git grep -hwo "$@" || true; } | wc -l; }

printf '%-32s %-36s %8s %6s\n' header routine sources tests
for header in $(git ls-files "${@/%//*.h}"); do
    # Declarations of free routines begin in the first column.
    for routine in $(grep -E '^[A-Za-z].*\(' "$header" | sed -nE 's/^[^(]*[ *&]([A-Za-z_]\w*)\(.*/\1/p' | sort -u); do
        sources=$(($(count "$routine" -- '*.cpp' '*.h' ':!tests' ':!bench' ':!fuzz' ":!$header") - 1))
        printf '%-32s %-36s %8d %6d\n' "$header" "$routine" "$sources" "$(count "$routine" -- tests)"
    done
done
