#!/usr/bin/env bash
# Builds the front end and the reference engine and runs a whole installation.
# With a display: interactive, the engine waits for you. Without one: unattended under a
# private Xvfb, clicking through the pages and saving a PNG of each to demo-out/.
#   scripts/demo.sh [--windows]   --windows: the .exe files under Wine, pages to demo-out/windows/
set -euo pipefail
cd "$(dirname "$0")/.."
root=$(pwd)
windows=0
[ "${1:-}" = --windows ] && windows=1

scripts/install-deps.sh
cmake --preset native >/dev/null
cmake --build build -j"$(nproc)" --target CorvalenSetup TandemoInstSvc corvalen-engine \
    corvalen-screenshot

out="$root/demo-out"
engine=(build/bin/corvalen-engine)
path_arg() { echo "$1"; }
if [ "$windows" = 1 ]; then
    scripts/build-windows.sh
    # shellcheck source=lib/wine.sh
    source scripts/lib/wine.sh
    wine_prefix "$root/build-windows/wineprefix-e2e" x11 96
    out="$root/demo-out/windows"
    engine=("$WINE" "$(winepath_of build-windows/bin/corvalen-engine.exe)")
    path_arg() { winepath_of "$1"; }
    export QT_FORCE_STDERR_LOGGING=1 # the Windows front end logs to the debugger otherwise
fi
rm -rf "$out"
mkdir -p "$out/install"

if [ -n "${DISPLAY:-}" ]; then
    echo "demo.sh: installing into $out/install/Tandemo; the engine's log is $out/engine.jsonl"
    exec "${engine[@]}" --target "$(path_arg "$out/install/Tandemo")" \
        --log "$(path_arg "$out/engine.jsonl")"
fi

# shellcheck source=lib/xvfb.sh
source scripts/lib/xvfb.sh
# shellcheck source=lib/geometry.sh
source scripts/lib/geometry.sh
start_private_xvfb
engine_pid=
cleanup() {
    [ -n "$engine_pid" ] && kill "$engine_pid" 2>/dev/null || true
    [ "$windows" = 1 ] && wine_stop
    stop_private_xvfb
}
trap cleanup EXIT
[ "$windows" = 1 ] && wine_start
echo "demo.sh: no display; running unattended under Xvfb on $DISPLAY"

shoot() { # name x y w h: the window with a margin around its shadow
    build/bin/corvalen-screenshot "$out/$1.png" $(($2 - 12)) $(($3 - 12)) $(($4 + 24)) $(($5 + 24))
    echo "demo.sh: $out/$1.png"
}

"${engine[@]}" --target "$(path_arg "$out/install/Tandemo")" --log "$(path_arg "$out/engine.jsonl")" \
    --chunk-kb 8 --unattended >"$out/frontend.log" 2>&1 &
engine_pid=$!

read -r _ x y < <(wait_window 416x136 1500 || wait_window 400x120)
shoot 1-loading "$x" "$y" 416 136

read -r _ x y < <(wait_window $MAIN_FOLDED)
sleep 0.3
shoot 2-choice-folded "$x" "$y" ${MAIN_FOLDED/x/ }

click_at "$x" "$y" "$MORE_OPTIONS"
read -r _ x y < <(wait_window $MAIN_UNFOLDED)
sleep 0.3
shoot 3-choice-unfolded "$x" "$y" ${MAIN_UNFOLDED/x/ }

click_at "$x" "$y" "$CHECK_BOX"
click_at "$x" "$y" "$INSTALL"
for _ in $(seq 1 500); do
    grep -q '"msg":1124,"name":"WM_MYPROGRESS","ok":true,"t":[0-9]*,"wp":"[4-9][0-9]"' \
        "$out/engine.jsonl" 2>/dev/null && break
    sleep 0.02
done
read -r _ x y < <(wait_window $MAIN_FOLDED)
shoot 4-installing "$x" "$y" ${MAIN_FOLDED/x/ }

for _ in $(seq 1 2000); do
    grep -q '"event":"copied"' "$out/engine.jsonl" 2>/dev/null && break
    sleep 0.02
done
sleep 1.6 # the completion page follows a second after 100 %
shoot 5-completed "$x" "$y" ${MAIN_FOLDED/x/ }

wait "$engine_pid"
status=$?
engine_pid=
echo "demo.sh: engine exited with $status; installed files:"
find "$out/install" -type f | sed "s|$out/||"
exit "$status"
