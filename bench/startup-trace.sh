#!/usr/bin/env bash
# Takes the Windows start-up apart under Wine: where the time goes between the process start and
# the first window mapped, for the front end and for the minimal Qt program built the same way,
# read from Wine's own timestamped trace (loaddll, process, x11drv). Medians of the runs given
# (default 5). The trace slows Wine down a little: compare the phases, not the totals, with
# bench/run.sh --windows. Never part of the test suite.
set -euo pipefail
cd "$(dirname "$0")/.."
root=$(pwd)
runs=${1:-5}

scripts/build-windows.sh >/dev/null
# shellcheck source=../scripts/lib/wine.sh
source scripts/lib/wine.sh
# shellcheck source=../scripts/lib/xvfb.sh
source scripts/lib/xvfb.sh
# shellcheck source=../scripts/lib/median.sh
source scripts/lib/median.sh
wine_on_private_display "$root/build-windows/wineprefix-e2e"

# One run: "phase ms" lines, each from the process start; the program is killed once mapped.
trace() { # program
    local log
    log=$(mktemp)
    WINEDEBUG=+timestamp,+loaddll,+process,+x11drv "$WINE" "$(winepath_of "$1")" >"$log" 2>&1 &
    local pid=$!
    for _ in $(seq 1 200); do grep -aq 'x11drv:map_window' "$log" && break; sleep 0.05; done
    kill "$pid" 2>/dev/null || true
    wait "$pid" 2>/dev/null || true
    # The program's own thread is the one that loaded its image.
    awk -v exe="$(basename "$1")" '
        function ms(t) { return int((t - start) * 1000 + 0.5) }
        { split($1, f, ":"); t = f[1]; thread = f[2] }
        !start && index($0, exe "\" at") { start = t; main = thread; next }
        !start || thread != main { next }
        /loaddll/ && /shcore.dll/ && !shcore { shcore = 1; print "Shcore loaded (DPI set-up, before main)", ms(t) }
        /loaddll/ && /winex11.drv/ && !display { display = 1; print "display driver loaded (first window)", ms(t) }
        /CreateProcessInternalW app/ && !child { child = 1; print "helper service started", ms(t) }
        /x11drv:map_window/ { print "first window mapped", ms(t); exit }
    ' "$log"
    rm -f "$log"
}

declare -A samples
order=()
for ((i = 0; i < runs; i++)); do
    for program in build-windows/bin/CorvalenSetup.exe build-windows/bin/corvalen-bench-minimal.exe; do
        while read -r line; do
            key="$(basename "$program" .exe): ${line% *}"
            [ -n "${samples[$key]+x}" ] || order+=("$key")
            samples[$key]+="${line##* } "
        done < <(trace "$program")
    done
done
printf '%-62s %8s  %s\n' "program: moment (ms after the process start)" median runs
for key in "${order[@]}"; do
    # shellcheck disable=SC2086 # one number per word
    printf '%-62s %8s  %s\n' "$key" "$(printf '%s\n' ${samples[$key]} | median)" "${samples[$key]}"
done
