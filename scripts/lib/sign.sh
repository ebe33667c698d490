#!/usr/bin/env bash
# Signs one Windows file in place with Authenticode (SHA-256, osslsigncode), for
# scripts/build-installer.sh and makensis's !finalize and !uninstfinalize. The certificate:
#   CORVALEN_SIGN_PKCS12 (a .p12/.pfx file) and CORVALEN_SIGN_PASSWORD, or
#   CORVALEN_SIGN_CERT and CORVALEN_SIGN_KEY (PEM; the key's password in CORVALEN_SIGN_PASSWORD)
#   CORVALEN_SIGN_TIMESTAMP_URL  an RFC 3161 time-stamp server (optional; without one the
#                                signature is valid only while the certificate is)
# The signing time is SOURCE_DATE_EPOCH when set, so that signing the same bytes with the same
# key gives the same bytes.
set -euo pipefail
file=$1
args=(-h sha256 -n Corvalen)
if [ -n "${CORVALEN_SIGN_PKCS12:-}" ]; then
    args+=(-pkcs12 "$CORVALEN_SIGN_PKCS12")
else
    args+=(-certs "$CORVALEN_SIGN_CERT" -key "$CORVALEN_SIGN_KEY")
fi
[ -z "${CORVALEN_SIGN_PASSWORD:-}" ] || args+=(-pass "$CORVALEN_SIGN_PASSWORD")
[ -z "${CORVALEN_SIGN_TIMESTAMP_URL:-}" ] || args+=(-ts "$CORVALEN_SIGN_TIMESTAMP_URL")
[ -z "${SOURCE_DATE_EPOCH:-}" ] || args+=(-time "$SOURCE_DATE_EPOCH")
osslsigncode sign "${args[@]}" -in "$file" -out "$file.signed" >/dev/null
mv -f "$file.signed" "$file"
