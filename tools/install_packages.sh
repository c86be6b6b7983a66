#!/usr/bin/env bash
# Installs the Debian packages that building needs; with "run" also the device that ./run polls, with "test" also those for
# testing, fuzzing and packaging, with "windows" also those for building and running the Windows programs. Does nothing if
# all are installed.
# Usage: tools/install_packages.sh build|run|test|windows
set -euo pipefail

build=(ca-certificates g++ cmake ninja-build pkg-config ccache zlib1g-dev libjson-c-dev libcurl4-openssl-dev
       libsqlite3-dev libsystemd-dev libmount-dev libedit-dev libfmt-dev libutfcpp-dev libzip-dev libssl-dev
       libcli11-dev nlohmann-json3-dev libmicrohttpd-dev libpq-dev)
test=(git libgtest-dev libgmock-dev libcpp-httplib-dev libbenchmark-dev clang-format clang-tidy openssl unzip python3 rpm
      clang libclang-rt-dev llvm snmpd snmp snmpsim procps iproute2 iputils-ping debhelper lintian systemd systemd-container
      dbus systemd-journal-remote dmidecode pciutils samba-common-bin postgresql prometheus chromium chromium-driver
      fonts-dejavu-core fuse3 python3-fusepy)
windows=(git dpkg-dev xz-utils libgtest-dev libgmock-dev openssl unzip snmpd snmp snmpsim g++-mingw-w64-x86-64-posix
         libz-mingw-w64-dev libcli11-dev nlohmann-json3-dev wine wine64 gnutls-bin)

packages=("${build[@]}")
case ${1:-build} in
    run) packages+=(snmpd) ;;
    test) packages+=("${test[@]}") ;;
    windows) packages+=("${windows[@]}") ;;
esac

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
# The tests start their own snmpd, PostgreSQL and Prometheus. So that the packages' are not started as services, the
# programs that would start them do nothing during the installation.
stubs=$(mktemp -d)
trap 'rm -rf "$stubs"' EXIT
chmod 755 "$stubs"
ln -s /bin/true "$stubs/invoke-rc.d"
ln -s /bin/true "$stubs/deb-systemd-invoke"

echo "Installing ${missing[*]}"
"${as_root[@]}" apt-get update -qq
"${as_root[@]}" env DEBIAN_FRONTEND=noninteractive apt-get install -y -qq --no-install-recommends \
    -o "DPkg::Path=$stubs:/usr/sbin:/usr/bin:/sbin:/bin" "${missing[@]}" >/dev/null
