#!/usr/bin/env bash
# Builds the Windows programs into build-windows/bin/ with the mingw-w64 toolchain and the
# static Qt for Windows from the cache (built there the first time, which takes a while).
set -euo pipefail
cd "$(dirname "$0")/.."

scripts/install-deps.sh
qt=$(scripts/build-qt-windows.sh)
# Another Qt (its options changed): start the tree afresh rather than mix the two.
if ! grep -qsx "CORVALEN_QT_WINDOWS:PATH=$qt" build-windows/CMakeCache.txt; then
    rm -rf build-windows/CMakeCache.txt build-windows/CMakeFiles
fi
CORVALEN_QT_WINDOWS="$qt" cmake --preset windows >/dev/null
cmake --build build-windows -j"$(nproc)"
