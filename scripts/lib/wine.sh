# shellcheck shell=bash
# Sourced: the Wine environment of the Windows tiers, the demo and the benchmark.
#   wine_prefix DIR DRIVER DPI   makes (once) and selects a throwaway 64-bit prefix in DIR,
#                                with Wine's "x11" or "null" graphics driver and that DPI
#   wine_start                   starts one server for the prefix and Wine's own services
#   wine_stop                    ends the server and every process of the prefix
WINE=/usr/lib/wine/wine64
WINESERVER=/usr/lib/wine/wineserver

wine_prefix() {
    export WINEPREFIX="$1" WINEARCH=win64 WINEDEBUG=-all
    # No crash dialog that would hang a run, no add-on installers, no menu entries in $HOME.
    export WINEDLLOVERRIDES="winedbg.exe=d;winemenubuilder.exe=d;mscoree,mshtml="
    # - No window manager on a private display: Wine would wait for one at every unmap, so its
    #   windows are left unmanaged.
    # - Keyboard cues off, as on a fresh Windows: focus frames only after keyboard use.
    # - The style sheets ask for "Microsoft YaHei": Wine finds the system's WenQuanYi under
    #   that name, so Latin and Chinese text render in one sans-serif face, never as boxes.
    # - The system's dialog face (Tahoma: the installer's own messages) takes the Chinese it
    #   lacks from WenQuanYi, as a Chinese Windows takes it from its own CJK face.
    local settings cjk
    cjk=$(printf 'wqy-microhei.ttc,WenQuanYi Micro Hei\0\0' | od -An -v -tx1 |
        tr -s ' \n' ',' | sed 's/^,//; s/,$//')
    settings=$(cat <<REG
Windows Registry Editor Version 5.00

[HKEY_CURRENT_USER\\Software\\Wine\\Drivers]
"Graphics"="$2"

[HKEY_CURRENT_USER\\Software\\Wine\\X11 Driver]
"Managed"="N"

[HKEY_CURRENT_USER\\Control Panel\\Desktop]
"LogPixels"=dword:$(printf '%08x' "$3")
"UserPreferencesMask"=hex:9e,1e,07,80,12,00,00,00

[HKEY_CURRENT_USER\\Software\\Wine\\Fonts\\Replacements]
"Microsoft YaHei"="WenQuanYi Micro Hei"

[HKEY_LOCAL_MACHINE\\Software\\Microsoft\\Windows NT\\CurrentVersion\\FontSubstitutes]
"Microsoft YaHei"="WenQuanYi Micro Hei"

[HKEY_LOCAL_MACHINE\\Software\\Microsoft\\Windows NT\\CurrentVersion\\FontLink\\SystemLink]
"Tahoma"=hex(7):$cjk

[HKEY_LOCAL_MACHINE\\Software\\Microsoft\\Windows NT\\CurrentVersion\\AeDebug]
"Debugger"=""
"Auto"="0"
REG
)
    local stamp link
    stamp="$WINEPREFIX/.corvalen-ready-$(md5sum <<<"$settings" | cut -c1-12)"
    if [ -f "$stamp" ]; then
        # Wine links the user's Desktop, Documents, ... to $HOME: what the programs under test
        # put there (the installer's shortcut) stays inside the prefix.
        for link in "$WINEPREFIX"/drive_c/users/*/*; do
            [ -L "$link" ] && rm "$link" && mkdir "$link"
        done
        return 0
    fi
    rm -rf "$WINEPREFIX"
    mkdir -p "$WINEPREFIX"
    DISPLAY="" "$WINE" wineboot --init >/dev/null 2>&1 || true
    "$WINESERVER" -w
    printf '%s\n' "$settings" >"$WINEPREFIX/corvalen.reg"
    DISPLAY="" "$WINE" regedit /S "$(winepath_of "$WINEPREFIX/corvalen.reg")" >/dev/null 2>&1 ||
        { echo "wine.sh: regedit could not apply the prefix's settings" >&2; return 1; }
    "$WINESERVER" -w # the registry is written out when the server ends by itself
    touch "$stamp"
    wine_prefix "$@"
}

# A Linux path as Wine's Z: drive names it.
winepath_of() {
    printf 'Z:%s' "$(realpath -m "$1" | tr '/' '\\')"
}

wine_start() {
    "$WINESERVER" -p || true
    # Started by the first test, Wine's services would inherit its pipes and keep them open.
    "$WINE" wineboot >/dev/null 2>&1 </dev/null || true
}

wine_stop() {
    "$WINESERVER" -k 2>/dev/null || true
    "$WINESERVER" -w 2>/dev/null || true
}

# Wine's X11 driver at 96 DPI in the prefix, on a private Xvfb (scripts/lib/xvfb.sh, sourced
# by the caller), both stopped when the script exits.
wine_on_private_display() { # prefix
    wine_prefix "$1" x11 96
    start_private_xvfb
    trap 'wine_stop; stop_private_xvfb' EXIT
    wine_start
}
