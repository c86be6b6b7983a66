#!/usr/bin/env bash
# Installs the Debian packages that building and trying, testing, or fuzzing need; does nothing when all are there.
# Usage: tools/install_packages.sh build|test|fuzz
set -euo pipefail

build=(ca-certificates g++ cmake ninja-build pkg-config ccache zlib1g-dev libjson-c-dev libcurl4-openssl-dev
       libsqlite3-dev libfmt-dev libutfcpp-dev libzip-dev libcpp-httplib-dev libssl-dev)
test=(git libgtest-dev libgmock-dev libbenchmark-dev clang-format clang-tidy openssl unzip python3)
fuzz=(clang libclang-rt-14-dev)

packages=("${build[@]}")
[ "${1:-build}" = test ] && packages+=("${test[@]}")
[ "${1:-build}" = fuzz ] && packages+=("${fuzz[@]}")

missing=()
for package in "${packages[@]}"; do
    dpkg-query -W -f='${Status}' "$package" 2>/dev/null | grep -q 'ok installed' || missing+=("$package")
done
[ ${#missing[@]} -eq 0 ] && exit 0

as_root=()
if [ "$(id -u)" -ne 0 ]; then
    command -v sudo >/dev/null || { echo "install_packages: run as root, or install: ${missing[*]}" >&2; exit 1; }
    as_root=(sudo)
fi
echo "Installing ${missing[*]}"
"${as_root[@]}" apt-get update -qq
"${as_root[@]}" env DEBIAN_FRONTEND=noninteractive apt-get install -y -qq --no-install-recommends "${missing[@]}" >/dev/null
