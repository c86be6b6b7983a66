#!/usr/bin/env bash
# Packs the Windows programs of build/windows, with what is needed to install them, into a zip in build/package-windows/.
# Needs what `tools/install_packages.sh windows` installs, and the programs built: `./test --windows` does both.
set -euo pipefail
cd "$(dirname "$0")/.."

version=$(sed -n 's/^project(kvagent VERSION \([0-9.]*\) .*/\1/p' CMakeLists.txt)
name=kvagent-$version-windows-x86_64
output=$PWD/build/package-windows
tree=$output/$name
rm -rf "$output"
mkdir -p "$tree/docs"

for program in MonitoringAgent kvagentctl kvreg; do
    x86_64-w64-mingw32-strip -o "$tree/$program.exe" "build/windows/bin/$program.exe"
done
# Windows' own editor has understood other line ends only since 2018.
for text in packaging/windows/{INSTALL.txt,settings.reg,plan.json,computer.bat}; do
    sed 's/$/\r/' "$text" >"$tree/${text##*/}"
done
for text in running plans systems wmi-classes; do sed 's/$/\r/' "docs/$text.md" >"$tree/docs/$text.md"; done
sed 's/$/\r/' packaging/debian/copyright >"$tree/copyright.txt"

# The licences of what is linked into the programs.
cp -r build/windows-deps/licences "$tree/licences"
for library in libz-mingw-w64-dev libutfcpp-dev libcli11-dev nlohmann-json3-dev mingw-w64-x86-64-dev gcc-mingw-w64-base; do
    cp "/usr/share/doc/$library/copyright" "$tree/licences/$library.txt"
done

# A program that needs a library that does not come with Windows would not start.
needed=$(x86_64-w64-mingw32-objdump -p "$tree"/*.exe | sed -n 's/^\tDLL Name: //p' | tr '[:upper:]' '[:lower:]' | sort -u)
own='^(advapi32|crypt32|kernel32|msvcrt|ntdll|ole32|oleaut32|shell32|winhttp|ws2_32)\.dll$'
if foreign=$(grep -vE "$own" <<<"$needed"); then
    echo "build_windows_zip: the programs need libraries that do not come with Windows: ${foreign//$'\n'/ }" >&2
    exit 1
fi

cd "$output"
cmake -E tar cf "$name.zip" --format=zip "$name"
unzip -tq "$name.zip"
