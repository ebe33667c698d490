#!/usr/bin/env bash
# The whole test suite: installs what it needs, builds into build/, runs every tier: unit
# (offscreen), os and e2e (under a private Xvfb), the same again under the sanitizers, the
# Windows tier under Wine, the reproducibility check, clang-tidy and a short run of every fuzz
# target.
set -euo pipefail
cd "$(dirname "$0")/.."

scripts/install-deps.sh

jobs=$(nproc)
cmake --preset native >/dev/null
cmake --build build -j"$jobs"

# shellcheck source=lib/xvfb.sh
source scripts/lib/xvfb.sh
start_private_xvfb
trap stop_private_xvfb EXIT
echo "test.sh: Xvfb on $DISPLAY"

log=$(mktemp)
status=0
ctest --preset native 2>&1 | tee "$log" || status=1

echo "test.sh: the same tiers under AddressSanitizer + UndefinedBehaviorSanitizer"
scripts/sanitize.sh 2>&1 | tee -a "$log" || status=1
stop_private_xvfb
trap - EXIT

echo "test.sh: Windows tier (mingw-w64 + Wine)"
scripts/test-windows.sh 2>&1 | tee -a "$log" || status=1

echo "test.sh: two builds of HEAD from two clean clones give the same bytes"
scripts/check-reproducible.sh || status=1

echo "test.sh: clang-tidy"
scripts/tidy.sh || status=1

echo "test.sh: fuzz smoke run (3 s per target)"
scripts/fuzz.sh 3 || status=1

# One line over both ctest runs.
read -r failed total < <(sed -n 's/.* tests passed, \([0-9]*\) tests failed out of \([0-9]*\)/\1 \2/p' "$log" |
    awk '{ f += $1; t += $2 } END { print f + 0, t + 0 }')
rm -f "$log"
[ "$failed" -eq 0 ] || status=1
echo "$((total - failed)) passed, $failed failed"
exit "$status"
