# Sourced: start_private_xvfb starts an Xvfb on a free display (-noreset), exports DISPLAY and
# XVFB_PID; stop_private_xvfb stops it by its PID.
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
}

stop_private_xvfb() {
    if [ -n "${XVFB_PID:-}" ]; then
        kill "$XVFB_PID" 2>/dev/null || true
        wait "$XVFB_PID" 2>/dev/null || true
        unset XVFB_PID
    fi
}
