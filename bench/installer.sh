#!/usr/bin/env bash
# Measures CorvalenInstaller.exe under Wine against the floor (bench/floor.nsi: the same
# application folder in a plain NSIS installer, the same makensis and compressor), at two sizes
# of the application: the stand-ins (a few MB) and a realistic one (scripts/lib/payload.sh:
# about 300 MB in about 3 000 files, one of 160 MB). Prints one table: the installers' sizes, the
# makensis time, the wall times of /S (a first install, one over the previous installation:
# 2.0.0.0 for the stand-ins, the same for the realistic one; the quiet uninstall; medians of the
# runs given, default 5, ours and the floor's alternating), the
# peak memory of the installer and of the front end, and the start-to-completion time of an
# unattended installation. Never part of the test suite.
#   bench/installer.sh [runs] [sizes]   sizes: "standin realistic" (default) or one of them
set -euo pipefail
cd "$(dirname "$0")/.."
root=$(pwd)
runs=${1:-5}
sizes=${2:-standin realistic}

scripts/build-installer.sh >/dev/null
# The version before, for an upgrade of the stand-ins.
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
# shellcheck source=../scripts/lib/payload.sh
source scripts/lib/payload.sh

# Both installers are built first, then measured with nothing else running.
declare -A makensis_ms shape
for size in $sizes; do
    payload=$root/build-windows/payload-$size
    if [ "$size" = realistic ]; then
        [ -f "$payload.complete" ] || { make_payload "$payload" realistic && touch "$payload.complete"; }
    else
        payload=$root/build-windows/payload-3.0.0.5
    fi
    makensis_ms[ours-$size]=$(CORVALEN_INSTALLER_NAME=bench-ours-$size scripts/build-installer.sh \
        --payload "$payload" | sed -n 's/^build-installer: makensis took \([0-9]*\) ms/\1/p')
    start=$(date +%s%N)
    makensis -V1 -DPAYLOAD="$payload" -DOUT="$root/build-windows/bench-floor-$size.exe" bench/floor.nsi
    makensis_ms[floor-$size]=$((($(date +%s%N) - start) / 1000000))
    shape[$size]="$(find "$payload" -type f | wc -l) files, $(du -sm "$payload" | cut -f1) MB"
done

wine_on_private_display "$root/build-windows/wineprefix-bench"
user=$(find "$WINEPREFIX/drive_c/users" -mindepth 1 -maxdepth 1 ! -name Public | head -1)
as_user=("$WINE" "$(winepath_of build-windows/bin/corvalen-unelevated.exe)")
timed() { # command...: its wall time in ms
    local start
    start=$(date +%s%N)
    "$@" >/dev/null 2>&1
    echo $((($(date +%s%N) - start) / 1000000))
}
# The highest peak resident set of the processes running `name` while `command` runs, in kB.
peak() { # name command...
    local name=$1 highest=0 pid kb
    shift
    "$@" >/dev/null 2>&1 &
    local runner=$!
    while kill -0 "$runner" 2>/dev/null; do
        for pid in $(pgrep -f "$name"); do
            kb=$(sed -n 's/^VmHWM:[[:space:]]*\([0-9]*\) kB/\1/p' "/proc/$pid/status" 2>/dev/null || true)
            [ -n "$kb" ] && [ "$kb" -gt "$highest" ] && highest=$kb
        done
        sleep 0.05
    done
    echo "$highest"
}
reset() {
    "$WINE" reg delete 'HKCU\Software\Corvalen' /f >/dev/null 2>&1 || true
    "$WINE" reg delete 'HKCU\Software\Microsoft\Windows\CurrentVersion\Uninstall\Corvalen' /f \
        >/dev/null 2>&1 || true
    rm -rf "$user/AppData/Local/Programs/Tandemo" "$user/AppData/Local/Programs/Floor"
}
quiet_uninstall() {
    local quiet exe args
    quiet=$("$WINE" reg query 'HKCU\Software\Microsoft\Windows\CurrentVersion\Uninstall\Corvalen' \
        /v QuietUninstallString 2>/dev/null | sed -n 's/.*REG_SZ *"\(.*\)" \(.*\)\r*$/\1\t\2/p')
    IFS=$'\t' read -r exe args <<<"$quiet"
    # shellcheck disable=SC2086 # the registered arguments, one word each
    timed "${as_user[@]}" "$exe" $args
}

row() { printf '%-44s %14s %14s %8s\n' "$@"; }
report=()
for size in $sizes; do
    ours=$(winepath_of "build-windows/bench-ours-$size.exe")
    floor=$(winepath_of "build-windows/bench-floor-$size.exe")
    floor_dir='C:\users\'"$(basename "$user")"'\AppData\Local\Programs\Floor'
    declare -A t=()
    for ((i = 0; i < runs; i++)); do
        reset
        t[first]+=" $(timed "${as_user[@]}" "$ours" /S)"
        if [ "$size" = standin ]; then
            reset
            "${as_user[@]}" "$(winepath_of build-windows/CorvalenInstaller-2.0.0.0.exe)" /S
        fi
        t[over]+=" $(timed "${as_user[@]}" "$ours" /S)"
        t[uninstall]+=" $(quiet_uninstall)"
        t[floor_first]+=" $(timed "${as_user[@]}" "$floor" /S)"
        t[floor_over]+=" $(timed "${as_user[@]}" "$floor" /S)"
        t[floor_uninstall]+=" $(timed "${as_user[@]}" "$floor_dir\\Uninstall.exe" /S "_?=$floor_dir")"
    done
    med() { tr ' ' '\n' <<<"${t[$1]}" | sed '/^$/d' | median; }
    ratio() { awk -v a="$1" -v b="$2" 'BEGIN { printf "%.2f", a / b }'; }
    reset
    installer_kb=$(peak "bench-ours-$size" "${as_user[@]}" "$ours" /S)
    reset
    # Unattended: the front end shown, the installation at once; ended once complete.
    start=$(date +%s%N)
    # In a subshell: the kill below ends the installer, not a job the shell would report.
    ("${as_user[@]}" "$ours" /unattended >/dev/null 2>&1) &
    runner=$!
    front_kb=0 gui_installer_kb=0
    read -r _ x y < <(wait_window "$MAIN_FOLDED" 3000)
    read -r sx sy <<<"$START_USING"
    until [ "$(build/bin/corvalen-screenshot --pixel $((x + sx - 40)) $((y + sy - 10)) 2>/dev/null)" = "#5998ff" ]; do
        for pid in $(pgrep -f CorvalenSetup.exe); do
            kb=$(sed -n 's/^VmHWM:[[:space:]]*\([0-9]*\) kB/\1/p' "/proc/$pid/status" 2>/dev/null || true)
            [ -n "$kb" ] && [ "$kb" -gt "$front_kb" ] && front_kb=$kb
        done
        for pid in $(pgrep -f "bench-ours-$size"); do
            kb=$(sed -n 's/^VmHWM:[[:space:]]*\([0-9]*\) kB/\1/p' "/proc/$pid/status" 2>/dev/null || true)
            [ -n "$kb" ] && [ "$kb" -gt "$gui_installer_kb" ] && gui_installer_kb=$kb
        done
        sleep 0.05
    done
    completed=$((($(date +%s%N) - start) / 1000000))
    pkill -9 -f "bench-ours-$size" || true
    wait "$runner" 2>/dev/null || true
    while find_window "$MAIN_FOLDED" >/dev/null; do sleep 0.1; done
    reset

    report+=("" "$(row "$size: ${shape[$size]}" ours floor ratio)")
    so=$(stat -c %s "build-windows/bench-ours-$size.exe") sf=$(stat -c %s "build-windows/bench-floor-$size.exe")
    report+=("$(row "installer (bytes)" "$so" "$sf" "$(ratio "$so" "$sf")")")
    report+=("$(row "makensis (ms)" "${makensis_ms[ours-$size]}" "${makensis_ms[floor-$size]}" "$(ratio "${makensis_ms[ours-$size]}" "${makensis_ms[floor-$size]}")")")
    for what in first over uninstall; do
        report+=("$(row "/S $what (ms, median of $runs)" "$(med "$what")" "$(med "floor_$what")" "$(ratio "$(med "$what")" "$(med "floor_$what")")")")
    done
    report+=("$(row "peak memory, installer /S (kB)" "$installer_kb" "" "")")
    report+=("$(row "peak memory, installer unattended (kB)" "$gui_installer_kb" "" "")")
    report+=("$(row "peak memory, front end (kB)" "$front_kb" "" "")")
    report+=("$(row "start -> completion page, unattended (ms)" "$completed" "" "")")
done
printf '%s\n' "${report[@]}"
