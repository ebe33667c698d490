#!/usr/bin/env bash
# Measures CorvalenInstaller.exe under Wine on a private Xvfb: its size, the wall time from its
# start to the front end's completion page, unattended (no clicks, no question), and the wall
# times of a deployment: /S into an empty machine, /S over 2.0.0.0, the quiet uninstall as
# registered. Medians of the runs given (default 5). Never part of the test suite.
set -euo pipefail
cd "$(dirname "$0")/.."
root=$(pwd)
runs=${1:-5}

scripts/build-installer.sh >/dev/null
CORVALEN_INSTALLER_NAME=CorvalenInstaller-2.0.0.0 scripts/build-installer.sh 2.0.0.0 >/dev/null
cmake --preset native >/dev/null
cmake --build build -j"$(nproc)" --target corvalen-screenshot >/dev/null
# shellcheck source=../scripts/lib/wine.sh
source scripts/lib/wine.sh
# shellcheck source=../scripts/lib/xvfb.sh
source scripts/lib/xvfb.sh
# shellcheck source=../scripts/lib/geometry.sh
source scripts/lib/geometry.sh
# shellcheck source=../scripts/lib/median.sh
source scripts/lib/median.sh
wine_on_private_display "$root/build-windows/wineprefix-bench"

installer=$(winepath_of build-windows/CorvalenInstaller.exe)
times=()
for ((i = 0; i < runs; i++)); do
    # A first installation each time: no registry key, no folder.
    "$WINE" reg delete 'HKCU\Software\Corvalen' /f >/dev/null 2>&1 || true
    rm -rf "$WINEPREFIX"/drive_c/users/*/AppData/Local/Programs/Tandemo
    start=$(date +%s%N)
    "$WINE" "$installer" /unattended >/dev/null 2>&1 &
    pid=$!
    read -r _ x y < <(wait_window "$MAIN_FOLDED" 3000)
    # The completion page: its start button's blue where the installing page has none.
    read -r sx sy <<<"$START_USING"
    until [ "$(build/bin/corvalen-screenshot --pixel $((x + sx - 40)) $((y + sy - 10)) 2>/dev/null)" = "#5998ff" ]; do
        sleep 0.02
    done
    times+=("$((($(date +%s%N) - start) / 1000000))")
    kill -9 "$pid"
    wait "$pid" 2>/dev/null || true
    while find_window "$MAIN_FOLDED" >/dev/null; do sleep 0.1; done # the front end follows its engine
done
median=$(printf '%s\n' "${times[@]}" | median)

timed() { # command...: its wall time in ms
    local start
    start=$(date +%s%N)
    "$@" >/dev/null 2>&1
    echo $((($(date +%s%N) - start) / 1000000))
}
first=() upgrade=() uninstall=()
for ((i = 0; i < runs; i++)); do
    "$WINE" reg delete 'HKCU\Software\Corvalen' /f >/dev/null 2>&1 || true
    rm -rf "$WINEPREFIX"/drive_c/users/*/AppData/Local/Programs/Tandemo
    first+=("$(timed "$WINE" "$installer" /S)")
    "$WINE" reg delete 'HKCU\Software\Corvalen' /f >/dev/null 2>&1 # 2.0.0.0 would be refused
    "$WINE" "$(winepath_of build-windows/CorvalenInstaller-2.0.0.0.exe)" /S >/dev/null 2>&1
    upgrade+=("$(timed "$WINE" "$installer" /S)")
    quiet=$("$WINE" reg query 'HKCU\Software\Microsoft\Windows\CurrentVersion\Uninstall\Corvalen' \
        /v QuietUninstallString 2>/dev/null | sed -n 's/.*REG_SZ *"\(.*\)" \(.*\)\r*$/\1\t\2/p')
    IFS=$'\t' read -r exe args <<<"$quiet"
    # shellcheck disable=SC2086 # the registered arguments, one word each
    uninstall+=("$(timed "$WINE" "$exe" $args)")
done
printf '%-52s %s\n' "CorvalenInstaller.exe (bytes)" "$(stat -c %s build-windows/CorvalenInstaller.exe)"
printf '%-52s %s (%s)\n' "start -> completion page, unattended (ms, median)" "$median" "${times[*]}"
for row in "first install, /S:first" "upgrade from 2.0.0.0, /S:upgrade" \
    "uninstall, QuietUninstallString:uninstall"; do
    declare -n list=${row##*:}
    printf '%-52s %s (%s)\n' "${row%:*} (ms, median)" "$(printf '%s\n' "${list[@]}" | median)" \
        "${list[*]}"
done
