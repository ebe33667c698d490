#!/usr/bin/env bash
# Rewrites the reference pictures of tests/unit/pictures from the current build, on purpose:
# review the changed PNGs (git diff shows them) before committing them.
set -euo pipefail
cd "$(dirname "$0")/.."
cmake -S . -B build -DCMAKE_BUILD_TYPE=RelWithDebInfo >/dev/null
cmake --build build -j"$(nproc)" --target tst_pictures
QT_QPA_PLATFORM=offscreen CORVALEN_UPDATE_REFERENCES=1 build/bin/tst_pictures
git status --short tests/unit/pictures/references
