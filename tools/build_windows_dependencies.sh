#!/usr/bin/env bash
# Builds the libraries that the Windows programs link, from Debian's source packages, with MinGW-w64: json-c and fmt; the
# headers of utf8cpp, CLI11 and nlohmann-json, and for the tests those of cpp-httplib, come along. Does nothing when they
# are there.
# Usage: tools/build_windows_dependencies.sh PREFIX
set -euo pipefail

root=$(cd "$(dirname "$0")/.." && pwd)
mkdir -p "$1"
prefix=$(cd "$1" && pwd)
stamp=$prefix/built
# Built again when this recipe or the compiler has changed.
recipe=$(cat "$0" "$root/cmake/toolchains/mingw.cmake" <(x86_64-w64-mingw32-g++-posix --version) | sha256sum)
[ "$(cat "$stamp" 2>/dev/null)" = "$recipe" ] && exit 0

work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

# This machine's own package sources, asked for the sources of packages; the machine's lists stay as they are.
apt=$work/apt
mkdir -p "$apt"/{sources,lists/partial}
for list in /etc/apt/sources.list.d/*.sources; do
    [ -e "$list" ] && sed 's/^Types:.*/Types: deb-src/' "$list" >"$apt/sources/${list##*/}"
done
for list in /etc/apt/sources.list /etc/apt/sources.list.d/*.list; do
    [ -e "$list" ] && sed -n 's/^deb /deb-src /p' "$list" >"$apt/sources/${list##*/}"
done
options=(-qq -o Dir::Etc::sourcelist=/dev/null -o "Dir::Etc::sourceparts=$apt/sources" -o "Dir::State::lists=$apt/lists"
         -o APT::Sandbox::User=root)

# fetch PACKAGE: its upstream source lies in $work/PACKAGE afterwards.
fetch() {
    mkdir "$work/$1"
    (cd "$work/$1" && apt-get "${options[@]}" source --download-only "$1" && tar --strip-components=1 -xf ./*.orig.tar.*)
}

# build PACKAGE OPTION...
build() {
    local package=$1
    shift
    cmake -S "$work/$package" -B "$work/$package/build" -G Ninja -DCMAKE_BUILD_TYPE=Release -DBUILD_SHARED_LIBS=OFF \
        -DCMAKE_TOOLCHAIN_FILE="$root/cmake/toolchains/mingw.cmake" -DCMAKE_INSTALL_PREFIX="$prefix" "$@"
    cmake --build "$work/$package/build"
    cmake --install "$work/$package/build"
}

log=$prefix/build.log
{
    apt-get "${options[@]}" update
    fetch json-c
    build json-c -DBUILD_APPS=OFF -DBUILD_TESTING=OFF -DDISABLE_WERROR=ON -DCMAKE_C_FLAGS=-D_WIN32_WINNT=0x0601
    fetch fmtlib
    build fmtlib -DFMT_DOC=OFF -DFMT_TEST=OFF
    fetch cpp-httplib
    cp "$work/cpp-httplib/httplib.h" "$prefix/include/"
    cp -rL /usr/include/utf8.h /usr/include/utf8 /usr/include/CLI /usr/include/nlohmann "$prefix/include/"
    mkdir -p "$prefix/share/cmake"
    cp -rL /usr/share/cmake/CLI11 /usr/share/cmake/nlohmann_json "$prefix/share/cmake/"
    mkdir -p "$prefix/licences"
    cp "$work/json-c/COPYING" "$prefix/licences/json-c.txt"
    cp "$work/fmtlib/LICENSE.rst" "$prefix/licences/fmt.txt"
} >"$log" 2>&1 || { tail -n 40 "$log" >&2; echo "build_windows_dependencies: failed; the whole log is $log" >&2; exit 1; }
echo "$recipe" >"$stamp"
