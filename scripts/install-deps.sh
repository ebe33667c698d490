#!/usr/bin/env bash
# Installs the Debian packages the build, the tests and the demo need. Idempotent; quiet when
# everything is already there.
set -euo pipefail

packages=(
    # build
    cmake g++ make pkg-config
    qtbase5-dev qtbase5-dev-tools libqt5svg5-dev libxcb1-dev
    # the unit tests switch Qt's accessibility on, as a screen reader's arrival does
    qtbase5-private-dev
    googletest libgtest-dev
    # display for the os and e2e tiers, the demo's screenshots, fonts for the CJK texts
    xvfb xauth xdotool fonts-wqy-microhei procps
    # the private display's compositor and light desktop, so the shadow shows as it does; xrdb
    # for its DPI
    xcompmgr hsetroot x11-xserver-utils
    # Windows tier: cross compiler, Wine, the installer engine; the product icon, Authenticode
    # signatures and resources read back, the reproducibility check's report
    g++-mingw-w64-x86-64-posix wine64 nsis
    librsvg2-bin icoutils osslsigncode openssl diffoscope-minimal
    # fuzzing, sanitizers, static analysis
    clang libclang-rt-14-dev clang-tidy
)

missing=()
for p in "${packages[@]}"; do
    if ! dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q 'install ok installed'; then
        missing+=("$p")
    fi
done
[ ${#missing[@]} -eq 0 ] && exit 0

echo "install-deps: installing ${missing[*]}"
SUDO=
[ "$(id -u)" -eq 0 ] || SUDO=sudo
export DEBIAN_FRONTEND=noninteractive
$SUDO apt-get update -qq
$SUDO apt-get install -y -qq --no-install-recommends "${missing[@]}" >/dev/null
