#!/usr/bin/env bash
# A payload Windows cannot hold, or that takes the installer's own names, fails
# scripts/build-installer.sh with a message naming each such file, and makes no installer.
set -uo pipefail
payload=$(mktemp -d)
trap 'rm -rf "$payload"' EXIT
out=build-windows/CorvalenInstaller-refused.exe
rm -f "$out"
long=$(printf 'x%.0s' {1..150})
names=("CON.txt" "aux" "a<b.txt" "trailing dot." "trailing space " "Uninstall.exe" "uninstall.lst"
    "folder/$long/$long.txt" "Case.txt" "case.txt" "lpt1.log")
for name in "${names[@]}"; do
    mkdir -p "$payload/$(dirname "$name")"
    echo x >"$payload/$name"
done
echo fine >"$payload/fine.txt"
messages=$(CORVALEN_INSTALLER_NAME=CorvalenInstaller-refused scripts/build-installer.sh \
    --payload "$payload" 2>&1 >/dev/null)
status=$?
failed=0
[ "$status" -ne 0 ] || { echo "refused-payload: the build succeeded"; failed=1; }
[ ! -e "$out" ] || { echo "refused-payload: $out was made"; failed=1; }
for name in "${names[@]}"; do
    [ "$name" = "Case.txt" ] && continue # one of the two is named
    grep -qF -- "$name" <<<"$messages" || { echo "refused-payload: not named: $name"; failed=1; }
done
! grep -qF fine.txt <<<"$messages" || { echo "refused-payload: fine.txt named"; failed=1; }
[ "$failed" -eq 0 ] && echo "refused-payload: every file named" || printf '%s\n' "$messages"
exit "$failed"
