#!/usr/bin/env bash
# Rewrites reference pictures from the current build, on purpose: review the changed PNGs (git
# diff shows them) before committing them.
#   scripts/update-references.sh            the picture tier's (tests/unit/pictures/references)
#   scripts/update-references.sh --screen   also the screen's own (tests/e2e/references): the
#                                           native states the picture tier lacks, and under Wine
#                                           every state (the Windows build and Qt's cache needed)
set -euo pipefail
cd "$(dirname "$0")/.."
root=$(pwd)
cmake --preset native >/dev/null
cmake --build build -j"$(nproc)" --target tst_pictures tst_e2e
QT_QPA_PLATFORM=offscreen CORVALEN_UPDATE_REFERENCES=1 build/bin/tst_pictures
if [ "${1:-}" = --screen ]; then
    # shellcheck source=lib/xvfb.sh
    source scripts/lib/xvfb.sh
    start_private_xvfb
    (cd build && CORVALEN_UPDATE_REFERENCES=1 ctest -L e2e) || true
    stop_private_xvfb
    CORVALEN_UPDATE_REFERENCES=1 scripts/test-windows.sh || true
fi
git -C "$root" status --short tests/unit/pictures/references tests/e2e/references
