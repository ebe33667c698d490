#!/usr/bin/env bash
# Builds what we ship twice, each from its own clean clone of HEAD (in folders of different
# names, so that no path can hide in the bytes), and compares the two byte for byte:
# CorvalenSetup.exe, corvalen.dll, Tandemo.exe, TandemoInstSvc.exe and CorvalenInstaller.exe,
# unsigned, then signed with one throwaway key and no time stamp. On a difference it names the
# file and shows where (diffoscope). Qt for Windows comes from the shared cache.
set -euo pipefail
cd "$(dirname "$0")/.."
root=$(pwd)
scripts/install-deps.sh
work=$(mktemp -d /tmp/corvalen-reproducible.XXXXXX)
trap 'rm -rf "$work"' EXIT

openssl req -x509 -newkey rsa:3072 -sha256 -days 3650 -nodes -subj "/CN=Corvalen reproducible" \
    -addext "extendedKeyUsage=codeSigning" -keyout "$work/key.pem" -out "$work/cert.pem" 2>/dev/null
build() { # clone, output folder, signed
    (
        cd "$1"
        if [ "$3" = signed ]; then
            export CORVALEN_SIGN_CERT="$work/cert.pem" CORVALEN_SIGN_KEY="$work/key.pem"
        fi
        scripts/build-installer.sh >"$2.log" 2>&1 || { tail -20 "$2.log"; exit 1; }
        mkdir -p "$2"
        cp build-windows/packed/* build-windows/CorvalenInstaller.exe "$2/"
    )
}
git clone -q "$root" "$work/a"
git clone -q "$root" "$work/second-clone"
status=0
for kind in unsigned signed; do
    build "$work/a" "$work/a-$kind" "$kind"
    build "$work/second-clone" "$work/b-$kind" "$kind"
    for f in CorvalenSetup.exe corvalen.dll Tandemo.exe TandemoInstSvc.exe CorvalenInstaller.exe; do
        if cmp -s "$work/a-$kind/$f" "$work/b-$kind/$f"; then
            echo "check-reproducible: $kind $f: identical, $(stat -c %s "$work/a-$kind/$f") bytes"
        else
            echo "check-reproducible: $kind $f: DIFFERS"
            diffoscope --text - --max-report-size 200000 "$work/a-$kind/$f" "$work/b-$kind/$f" |
                head -60 || true
            status=1
        fi
    done
done
exit "$status"
