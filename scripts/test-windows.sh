#!/usr/bin/env bash
# The Windows tier: builds the Windows programs and the installer (scripts/build-installer.sh,
# Qt for Windows from its cache), then runs under wine64, each in a throwaway prefix inside
# build-windows/:
#  - the os tests, with Wine's null driver at 144 DPI (no display needed);
#  - the end-to-end tiers (tests/e2e, the native test driving the .exe files, then the
#    installer), with Wine's X11 driver on a private Xvfb.
set -euo pipefail
cd "$(dirname "$0")/.."
root=$(pwd)

# A throwaway code-signing certificate whose key has a password, as a real one has: the build
# signs everything with it, the installer tier verifies every signature.
signing="$root/build-windows/signing"
if [ ! -f "$signing/cert.pem" ] || ! grep -q ENCRYPTED "$signing/key.pem"; then
    mkdir -p "$signing"
    printf 'throwaway' >"$signing/password"
    openssl req -x509 -newkey rsa:3072 -sha256 -days 3650 -subj "/CN=Corvalen test signing" \
        -addext "extendedKeyUsage=codeSigning" -addext "keyUsage=digitalSignature" \
        -passout "file:$signing/password" -keyout "$signing/key.pem" -out "$signing/cert.pem" \
        2>/dev/null
fi
export CORVALEN_SIGN_CERT="$signing/cert.pem" CORVALEN_SIGN_KEY="$signing/key.pem"
export CORVALEN_SIGN_PASSWORD_FILE="$signing/password"
scripts/build-installer.sh
# An older version for the upgrade stories, from the same script, and one that packs a
# folder of every odd name with a large file.
CORVALEN_INSTALLER_NAME=CorvalenInstaller-2.0.0.0 scripts/build-installer.sh 2.0.0.0
# shellcheck source=lib/payload.sh
source scripts/lib/payload.sh
make_payload build-windows/payload-test test
CORVALEN_INSTALLER_NAME=CorvalenInstaller-payload scripts/build-installer.sh --payload build-windows/payload-test
cmake --preset native >/dev/null
cmake --build build -j"$(nproc)" --target tst_e2e tst_installer CorvalenSetup corvalen-engine \
    TandemoInstSvc Tandemo

# shellcheck source=lib/wine.sh
source scripts/lib/wine.sh
# shellcheck source=lib/xvfb.sh
source scripts/lib/xvfb.sh
unset WAYLAND_DISPLAY
status=0

wine_prefix "$root/build-windows/wineprefix-os" null 144
export DISPLAY= # the null driver needs none; never talk to a developer's desktop
trap wine_stop EXIT
wine_start
CORVALEN_EXPECT_DPI=144 ctest --preset windows || status=1
wine_stop

wine_on_private_display "$root/build-windows/wineprefix-e2e"
ctest --preset wine || status=1
exit "$status"
