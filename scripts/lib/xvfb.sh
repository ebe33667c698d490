# shellcheck shell=bash
# Sourced: start_private_xvfb starts an Xvfb on a free display (-noreset) with a light desktop
# and a compositor, exports DISPLAY and XVFB_PID; stop_private_xvfb stops them by their PIDs;
# find_window and wait_window find the front end's windows by their size.
start_private_xvfb() {
    local fifo dir
    dir=$(mktemp -d)
    fifo="$dir/display"
    mkfifo "$fifo"
    Xvfb -displayfd 3 -screen 0 1280x1024x24 -noreset -nolisten tcp 3>"$fifo" >"$dir/xvfb.log" 2>&1 &
    XVFB_PID=$!
    local n
    if ! read -r -t 20 n <"$fifo"; then
        echo "Xvfb did not start:" >&2
        cat "$dir/xvfb.log" >&2
        return 1
    fi
    rm -rf "$dir"
    export DISPLAY=":$n" XVFB_PID
    # The windows' translucent margin is blended on the desktop as on Windows, not shown black:
    # what the tests read back from the screen is what a person sees. (hsetroot leaves the root
    # pixmap that the compositor paints.)
    hsetroot -solid '#F2F3F5' >/dev/null
    xcompmgr >/dev/null 2>&1 &
    COMPOSITOR_PID=$!
}

stop_private_xvfb() {
    if [ -n "${COMPOSITOR_PID:-}" ]; then
        kill "$COMPOSITOR_PID" 2>/dev/null || true
        unset COMPOSITOR_PID
    fi
    if [ -n "${XVFB_PID:-}" ]; then
        kill "$XVFB_PID" 2>/dev/null || true
        wait "$XVFB_PID" 2>/dev/null || true
        unset XVFB_PID
    fi
}

# The visible window titled "Corvalen" of the given size: "id x y", or nothing.
find_window() {
    local id geometry
    for id in $(xdotool search --onlyvisible --name '^Corvalen$' 2>/dev/null); do
        geometry=$(xdotool getwindowgeometry "$id" 2>/dev/null) || continue
        if grep -q "Geometry: $1" <<<"$geometry"; then
            sed -n 's/.*Position: \([0-9-]*\),\([0-9-]*\).*/\1 \2/p' <<<"$geometry" | sed "s/^/$id /"
            return 0
        fi
    done
    return 1
}

# A click at a point of a window (a point of geometry.sh), the pointer resting there first as a
# person's would.
click_at() { # window-x window-y "x y"
    local px py
    read -r px py <<<"$3"
    xdotool mousemove $(($1 + px)) $(($2 + py))
    sleep 0.1
    xdotool click 1
}

wait_window() { # size, tries of 20 ms
    local i
    for ((i = 0; i < ${2:-500}; i++)); do
        find_window "$1" && return 0
        sleep 0.02
    done
    echo "no window of size $1" >&2
    return 1
}
