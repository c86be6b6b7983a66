#!/usr/bin/env bash
# Runs clang-tidy over the lines that changed: since the branch left origin/main, else in the last commit, and what is not
# committed. Fails when it finds something.
#
#   tools/lint.sh PRESET [COMMIT]     PRESET must be built; COMMIT is where the changes begin
set -euo pipefail
cd "$(dirname "$0")/.."

case "${1:-}" in
    -h | --help | '') sed -n '2,5s/^# \{0,1\}//p' "$0"; exit 0 ;;
esac
preset=$1
most_files=16  # about three minutes on two cores

base=${2:-$(git merge-base HEAD origin/main 2>/dev/null || true)}
[ -n "$base" ] && [ "$(git rev-parse "$base")" != "$(git rev-parse HEAD)" ] || base=HEAD~1

# Only what this preset compiles. Tests are left out: the macros of GoogleTest take half a minute each.
mapfile -t changed < <(git diff --name-only --diff-filter=d "$base" -- '*.cpp' ':!tests' |
    while read -r file; do grep -qF "/$file\"" "build/$preset/compile_commands.json" && echo "$file"; done || true)
echo "${#changed[@]} sources changed since $(git rev-parse --short "$base")"
if [ ${#changed[@]} -gt $most_files ]; then
    echo "looking at $most_files of them; name a later commit for the rest"
    changed=("${changed[@]:0:most_files}")
fi
[ ${#changed[@]} -gt 0 ] || exit 0

findings=build/$preset/lint.txt
git diff -U0 "$base" -- "${changed[@]}" |
    clang-tidy-diff -p1 -path "build/$preset" -j2 -quiet -extra-arg=-Wno-unknown-warning-option \
        >"$findings" 2>"$findings.errors" || { cat "$findings.errors" >&2; exit 1; }
! grep -E '(warning|error):' "$findings"
