#!/usr/bin/env bash
# The Windows tier: cross-builds src/os and tests/os with mingw-w64 and runs them under Wine,
# in a throwaway prefix inside the build tree. Needs no display.
set -euo pipefail
cd "$(dirname "$0")/.."
root=$(pwd)
build="$root/build-win"

wine=/usr/lib/wine/wine64
wineserver=/usr/lib/wine/wineserver
if [ ! -x "$wine" ] || ! command -v x86_64-w64-mingw32-g++-posix >/dev/null; then
    scripts/install-deps.sh
fi

cmake -S . -B "$build" -DCMAKE_TOOLCHAIN_FILE="$root/cmake/mingw-w64-x86_64.cmake" \
    -DCORVALEN_OS_ONLY=ON -DCMAKE_BUILD_TYPE=Release >/dev/null
cmake --build "$build" -j"$(nproc)"

export WINEPREFIX="$build/wineprefix"
export WINEARCH=win64
export WINEDEBUG=-all
# No crash dialog that would hang the run, no add-on installers.
export WINEDLLOVERRIDES="winedbg.exe=d;mscoree,mshtml="
export DISPLAY= # the null driver needs none; never talk to a developer's desktop
unset WAYLAND_DISPLAY

stop_server() { "$wineserver" -k 2>/dev/null || true; }
trap stop_server EXIT

if [ ! -f "$WINEPREFIX/.corvalen-ready" ]; then
    rm -rf "$WINEPREFIX"
    "$wine" wineboot --init >/dev/null 2>&1 || true
    "$wineserver" -w
    "$wine" reg add 'HKCU\Software\Wine\Drivers' /v Graphics /d null /f >/dev/null 2>&1
    "$wine" reg add 'HKLM\Software\Microsoft\Windows NT\CurrentVersion\AeDebug' /v Debugger /d '' /f \
        >/dev/null 2>&1
    "$wine" reg add 'HKCU\Control Panel\Desktop' /v LogPixels /t REG_DWORD /d 144 /f >/dev/null 2>&1
    "$wineserver" -k || true
    "$wineserver" -w
    touch "$WINEPREFIX/.corvalen-ready"
fi
# One persistent server for the whole run, and Wine's own services started now with their
# output going nowhere: started by the first test they would inherit ctest's pipe and keep
# it open after the test has ended.
"$wineserver" -p || true
"$wine" wineboot >/dev/null 2>&1 </dev/null || true

export CORVALEN_EXPECT_DPI=144
cd "$build"
ctest --output-on-failure --timeout 240 -L windows
