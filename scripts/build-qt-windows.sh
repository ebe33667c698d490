#!/usr/bin/env bash
# Builds Qt 5.15 (qtbase and qtsvg) for 64-bit Windows, static and release, with the mingw-w64
# posix toolchain, from Debian's own source packages, into a cache outside the tree. Does
# nothing when the cache holds a finished build of the same options. Prints the prefix last.
#
#   CORVALEN_QT_WINDOWS=/path scripts/build-qt-windows.sh
set -euo pipefail
cd "$(dirname "$0")/.."
repo=$PWD

jobs=$(nproc)

# What the front end uses: Core, Gui, Widgets, Concurrent, Svg and the windows platform
# plugin with its vista style. Everything else is left out to shorten the build.
options=(
    -xplatform win32-g++ -device-option CROSS_COMPILE=x86_64-w64-mingw32-
    -static -release -optimize-size -opensource -confirm-license
    -nomake examples -nomake tests -no-pch
    -no-opengl -no-direct2d -no-dbus -no-icu -no-fontconfig
    -qt-zlib -qt-libpng -qt-pcre -qt-harfbuzz
    -no-gif -no-ico -no-libjpeg
    # What the program never reaches, for size: Windows draws text itself (GDI), arguments
    # come through the system's own code page, never through Qt's CJK tables, the style is the
    # Windows one under the style sheets. (XPM stays: the windows plugin draws its cursors so;
    # so does the MIME type API, which Qt's SVG icon engine is built against; its database goes.)
    -no-freetype -no-feature-big_codecs -no-feature-style-fusion
    -no-feature-pdf -no-feature-movie -no-feature-sessionmanager
    -no-feature-imageformat_ppm -no-feature-imageformat_xbm
    # No public-suffix table (URLs are never split by domain), no state machines, and no bundled
    # MIME database: every image the program names ends in its type (.svg, .png), which Qt reads
    # before it would ask the database.
    -no-feature-topleveldomain -no-feature-statemachine -no-mimetype-database
    -no-feature-sql -no-feature-network -no-openssl -no-feature-xml -no-feature-vulkan
    -no-feature-textodfwriter -no-feature-textmarkdownreader -no-feature-textmarkdownwriter
    -no-feature-mdiarea -no-feature-calendarwidget -no-feature-lcdnumber -no-feature-dial
    -no-feature-undoview -no-feature-wizard -no-feature-splashscreen -no-feature-keysequenceedit
    -no-feature-fontcombobox -no-feature-colordialog -no-feature-fontdialog
    -no-feature-errormessage -no-feature-systemtrayicon
    # Debian's repacked source leaves out the tablet header.
    -no-feature-tabletevent
    # A static Qt is not split into sections by itself; split, the linker drops what the
    # program does not call.
    "QMAKE_CFLAGS+=-ffunction-sections -fdata-sections"
    "QMAKE_CXXFLAGS+=-ffunction-sections -fdata-sections"
)
# Patches to Qt's sources, each saying why at its top; they are part of the build's identity.
patches=(scripts/qt-patches/*.patch)
want="${options[*]} $(cat "${patches[@]}" | md5sum | cut -c1-8)"
# One folder per set of options: changing them builds anew beside the old build.
prefix=${CORVALEN_QT_WINDOWS:-${XDG_CACHE_HOME:-$HOME/.cache}/corvalen/qt5-win64-static-$(md5sum <<<"$want" | cut -c1-8)}
stamp="$prefix/.corvalen-complete"
# A folder named explicitly is taken as it is once a build there has finished.
if [ -f "$stamp" ] && { [ -n "${CORVALEN_QT_WINDOWS:-}" ] || [ "$(cat "$stamp")" = "$want" ]; }; then
    echo "$prefix"
    exit 0
fi
if [ -n "${CORVALEN_QT_WINDOWS:-}" ] && [ -e "$prefix" ] && [ -n "$(ls -A "$prefix")" ] && [ ! -f "$stamp" ]; then
    echo "build-qt-windows: $prefix is not a finished build of this script; name an empty or new folder" >&2
    exit 1
fi

SUDO=
[ "$(id -u)" -eq 0 ] || SUDO=sudo
export DEBIAN_FRONTEND=noninteractive
need=()
for p in g++-mingw-w64-x86-64-posix dpkg-dev g++ make patch perl python3 xz-utils; do
    dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q 'install ok installed' || need+=("$p")
done
if [ ${#need[@]} -gt 0 ]; then
    $SUDO apt-get update -qq
    $SUDO apt-get install -y -qq --no-install-recommends "${need[@]}" >/dev/null
fi

# A source entry mirroring the machine's own Debian entry, so that apt-get source finds the
# exact version the machine ships natively.
src_list=/etc/apt/sources.list.d/corvalen-deb-src.sources
if ! grep -rqs '^Types:.*deb-src' /etc/apt/sources.list.d/ && ! grep -qs '^deb-src' /etc/apt/sources.list; then
    if [ -f /etc/apt/sources.list.d/debian.sources ]; then
        sed 's/^Types: *deb$/Types: deb-src/' /etc/apt/sources.list.d/debian.sources | $SUDO tee "$src_list" >/dev/null
    else
        sed -n 's/^deb \(.*\)/deb-src \1/p' /etc/apt/sources.list | $SUDO tee "$src_list" >/dev/null
    fi
    $SUDO apt-get update -qq
fi

work="$prefix.work"
rm -rf "$work" "$prefix"
mkdir -p "$work"
cd "$work"
start=$(date +%s)
echo "build-qt-windows: fetching the sources" >&2
apt-get source -qq qtbase-opensource-src qtsvg-opensource-src >source.log 2>&1 ||
    { tail -20 source.log >&2; echo "build-qt-windows: apt-get source failed" >&2; exit 1; }
qtbase_src=$(find . -maxdepth 1 -type d -name 'qtbase-opensource-src-*' | head -1)
qtsvg_src=$(find . -maxdepth 1 -type d -name 'qtsvg-opensource-src-*' | head -1)
[ -n "$qtbase_src" ] && [ -n "$qtsvg_src" ] || { echo "build-qt-windows: no source folders" >&2; exit 1; }
for p in "${patches[@]}"; do
    patch -d "$qtbase_src" -p1 -s <"$repo/$p" || { echo "build-qt-windows: $p does not apply" >&2; exit 1; }
done

echo "build-qt-windows: configuring qtbase into $prefix" >&2
mkdir qtbase-build
(cd qtbase-build && "../$qtbase_src/configure" -prefix "$prefix" "${options[@]}" >configure.log 2>&1) ||
    { tail -40 qtbase-build/configure.log >&2; exit 1; }
echo "build-qt-windows: building qtbase (about half an hour on 2 cores)" >&2
(cd qtbase-build && make -j"$jobs" >make.log 2>&1) || { tail -40 qtbase-build/make.log >&2; exit 1; }
(cd qtbase-build && make -j"$jobs" install >install.log 2>&1) || { tail -40 qtbase-build/install.log >&2; exit 1; }

echo "build-qt-windows: building qtsvg" >&2
mkdir qtsvg-build
(cd qtsvg-build && "$prefix/bin/qmake" "../$qtsvg_src" >qmake.log 2>&1 && make -j"$jobs" >make.log 2>&1 &&
    make -j"$jobs" install >install.log 2>&1) || { tail -40 qtsvg-build/*.log >&2; exit 1; }

cd /
rm -rf "$work"
echo "$want" >"$stamp"
echo "build-qt-windows: done in $(($(date +%s) - start)) s" >&2
echo "$prefix"
