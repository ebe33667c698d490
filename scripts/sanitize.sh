#!/usr/bin/env bash
# The unit, os and e2e tiers again, built with AddressSanitizer + UndefinedBehaviorSanitizer
# (leak checking on) in build-asan/. Needs the X display that scripts/test.sh provides.
set -euo pipefail
cd "$(dirname "$0")/.."
root=$(pwd)

cmake --preset sanitize >/dev/null
cmake --build build-asan -j"$(nproc)"

export ASAN_OPTIONS="detect_leaks=1:abort_on_error=0:halt_on_error=1"
export UBSAN_OPTIONS="print_stacktrace=1:halt_on_error=1"
export LSAN_OPTIONS="suppressions=$root/scripts/lsan.supp:print_suppressions=0"
ctest --preset sanitize
