#!/usr/bin/env bash
# Remakes the bitmaps of the bundle from their vector sources (needs librsvg2-bin).
set -euo pipefail
cd "$(dirname "$0")/../images"
rsvg-convert -w 100 -h 100 ../tools/logo.svg -o logo@2x.png
rsvg-convert -w 300 -h 300 ../tools/logo.svg -o logo@3x.png
rsvg-convert -w 60 -h 60 completed.svg -o completed@2x.png
for name in uncheck_normal uncheck_hover checked_normal checked_hover \
    morechoose_down_normal morechoose_down_hover morechoose_up_normal morechoose_up_hover; do
    rsvg-convert -w 16 -h 16 -b '#FFFFFF' "$name.svg" -o "$name.png"
done
