#!/usr/bin/env bash
# Takes the pictures of the lab's page that README.md and docs/lab.md show, in a headless Chromium, from a lab that runs:
# that of ./run, or the one at ADDRESS. Let it collect for ten minutes before.
# Usage: tools/lab_pictures.sh [ADDRESS]
set -euo pipefail
cd "$(dirname "$0")/.."

address=${1:-$(grep -som1 'http://[^ ]*' demo/kvlab.out || true)}
[ -n "$address" ] || { echo 'lab_pictures: ./run does not run here; give the address of a lab' >&2; exit 1; }
tools/install_packages.sh test
cmake --preset debug >/dev/null
cmake --build --preset debug --target lab_pictures -- --quiet
mkdir -p docs/pictures
build/debug/bin/lab_pictures "$address" docs/pictures
