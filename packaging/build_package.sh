#!/usr/bin/env bash
# Builds the Debian packages from the tracked files, as they are in the working tree, into build/package/.
# Needs what `tools/install_packages.sh test` installs.
set -euo pipefail
cd "$(dirname "$0")/.."

version=$(dpkg-parsechangelog -l packaging/debian/changelog -S Version)
grep -q "^project(kvagent VERSION $version " CMakeLists.txt ||
    { echo "build_package: packaging/debian/changelog says $version, CMakeLists.txt says otherwise" >&2; exit 1; }

output=$PWD/build/package
tree=$output/kvagent-$version
rm -rf "$output"
mkdir -p "$tree"
git ls-files -z | while IFS= read -rd '' file; do [ ! -e "$file" ] || printf '%s\0' "$file"; done |
    tar --create --null --files-from=- | tar --extract --directory="$tree"
cp -r "$tree/packaging/debian" "$tree/debian"

# debhelper gives the build another home directory; the compiler's cache stays that of all builds.
if command -v ccache >/dev/null; then
    CCACHE_DIR=$(ccache --get-config=cache_dir)
    export CCACHE_DIR CCACHE_BASEDIR=$tree
fi
export DEB_BUILD_OPTIONS="terse ${DEB_BUILD_OPTIONS:-}"
cd "$tree"
if ! dpkg-buildpackage --unsigned-source --unsigned-changes --build=binary >"$output/build.log" 2>&1; then
    tail -n 60 "$output/build.log" >&2
    echo 'build_package: the build failed; the whole log is build/package/build.log' >&2
    exit 1
fi
cd "$output"
ls -- *.deb
