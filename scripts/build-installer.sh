#!/usr/bin/env bash
# Builds build-windows/CorvalenInstaller.exe: the Windows programs and the NSIS plug-in
# (scripts/build-windows.sh), a few MB of stand-in application files, and the installer
# itself with Debian's makensis (installer/corvalen.nsi). Prints the installer's size last.
#
#   scripts/build-installer.sh [VERSION]     the version the installer carries (3.0.0.5)
set -euo pipefail
cd "$(dirname "$0")/.."
root=$(pwd)
version=${1:-3.0.0.5}

scripts/build-windows.sh
bin="$root/build-windows/bin"

# The application's other files: made once, the same bytes every time.
payload="$root/build-windows/installer-payload"
if [ ! -f "$payload.complete" ]; then
    rm -rf "$payload"
    mkdir -p "$payload/images" "$payload/lang"
    for f in images/splash.bin images/icons.bin lang/zh_CN.dat core.dat; do
        awk -v seed="${#f}" 'BEGIN { for (i = 0; i < 90000; i++) printf "%08d %s\n", (i * 7919 + seed) % 99991, seed }' \
            >"$payload/$f"
    done
    touch "$payload.complete"
fi

out="$root/build-windows/CorvalenInstaller.exe"
# makensis takes the script's folder as its own; the paths it is given are absolute.
makensis -V2 -DBIN="$bin" -DPAYLOAD="$payload" -DPLUGINS="$bin" -DOUT="$out" \
    -DVERSION="$version" installer/corvalen.nsi
echo "build-installer: $out, $(stat -c %s "$out") bytes"
