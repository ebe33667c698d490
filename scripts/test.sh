#!/usr/bin/env bash
# The whole test suite: installs what it needs, builds into build/, runs every tier.
set -euo pipefail
cd "$(dirname "$0")/.."
root=$(pwd)

scripts/install-deps.sh

jobs=$(nproc)
cmake -S . -B build -DCMAKE_BUILD_TYPE=RelWithDebInfo >/dev/null
cmake --build build -j"$jobs"

# shellcheck source=lib/xvfb.sh
source scripts/lib/xvfb.sh
start_private_xvfb
trap stop_private_xvfb EXIT
echo "test.sh: Xvfb on $DISPLAY"

cd "$root/build"
ctest --output-on-failure -j2 --timeout 300
