#!/usr/bin/env bash
# Builds the libFuzzer targets with clang and runs each for the given number of seconds
# (default 60), starting from the seed corpus in fuzz/corpus/. Prints one line per target.
set -euo pipefail
cd "$(dirname "$0")/.."
root=$(pwd)
seconds=${1:-60}

command -v clang++ >/dev/null || scripts/install-deps.sh
cmake --preset fuzz >/dev/null
cmake --build build-fuzz -j"$(nproc)" >/dev/null

status=0
for target in arguments version ipcfile title browsepath clientmessage; do
    work=$(mktemp -d)
    cp "$root/fuzz/corpus/$target/"* "$work/"
    log="$work/log"
    if "$root/build-fuzz/bin/fuzz_$target" -max_total_time="$seconds" -max_len=4096 \
        -artifact_prefix="$root/build-fuzz/crash-$target-" "$work" >"$log" 2>&1; then
        runs=$(sed -n 's/^Done \([0-9]*\) runs.*/\1/p' "$log" | tail -n 1)
        echo "fuzz_$target: ${runs:-?} runs in ${seconds} s, nothing found"
    else
        status=1
        echo "fuzz_$target: FAILED, see build-fuzz/crash-$target-*"
        tail -n 30 "$log"
    fi
    rm -rf "$work"
done
exit "$status"
