#!/usr/bin/env bash
# Signs one Windows file in place with Authenticode (SHA-256, osslsigncode), for
# scripts/build-installer.sh and makensis's !finalize and !uninstfinalize. The certificate:
#   CORVALEN_SIGN_PKCS12 (a .p12/.pfx file), or
#   CORVALEN_SIGN_CERT and CORVALEN_SIGN_KEY (PEM)
#   the password, if any: the file CORVALEN_SIGN_PASSWORD_FILE names, or CORVALEN_SIGN_PASSWORD;
#   handed over through a file descriptor, never on a command line, which every process can read
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
if [ -n "${CORVALEN_SIGN_PASSWORD_FILE:-}" ]; then
    args+=(-readpass "$CORVALEN_SIGN_PASSWORD_FILE")
elif [ -n "${CORVALEN_SIGN_PASSWORD:-}" ]; then
    # A pipe from this shell: the password stays in this process's own environment.
    exec 3< <(printf '%s' "$CORVALEN_SIGN_PASSWORD")
    args+=(-readpass /dev/fd/3)
fi
[ -z "${CORVALEN_SIGN_TIMESTAMP_URL:-}" ] || args+=(-ts "$CORVALEN_SIGN_TIMESTAMP_URL")
[ -z "${SOURCE_DATE_EPOCH:-}" ] || args+=(-time "$SOURCE_DATE_EPOCH")
osslsigncode sign "${args[@]}" -in "$file" -out "$file.signed" >/dev/null
mv -f "$file.signed" "$file"
