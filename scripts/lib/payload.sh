# shellcheck shell=bash
# Sourced: application folders to pack instead of the stand-ins, made from what the machine's
# Debian packages hold (no download), the same bytes from the same packages every time.
#   make_payload DIR test        a few hundred files, one of about 20 MB, and every odd thing a
#                                folder may hold: spaces, Chinese, $ % ! & in names, a deep path,
#                                an empty folder, an empty file, a read-only file
#   make_payload DIR realistic   about 300 MB in about 3 000 files, shaped like a meeting
#                                application: a browser engine of 160 MB, a few tens of
#                                libraries of MBs, thousands of small resources
# Content compresses as the real thing does: a library is Wine's own PE files, the largest
# first, with every third already compressed, as a real one's resources are (LZMA leaves about
# a third of the whole); text is what they and the licences hold; images are PNG files rendered
# from the project's own SVG.
payload_dlls=()

# A file of `size` bytes of the PE files, from the `offset`-th on.
payload_binary() { # path size offset
    mkdir -p "$(dirname "$1")"
    local n=0 dll
    for dll in "${payload_dlls[@]:$(($3 % ${#payload_dlls[@]}))}"; do
        if ((n++ % 3 == 2)); then gzip -9 -n -c "$dll"; else cat "$dll"; fi
    done 2>/dev/null | head -c "$2" >"$1" || true
}

# Text a resource file holds: the strings of a PE file, then licences.
payload_text() { # path size seed
    mkdir -p "$(dirname "$1")"
    { strings -n 6 "${payload_dlls[$(($3 % ${#payload_dlls[@]}))]}" && cat /usr/share/common-licenses/*; } |
        head -c "$2" >"$1" || true
}

payload_images() { # folder count
    mkdir -p "$1"
    local svgs i
    mapfile -t svgs < <(find "$(dirname "${BASH_SOURCE[0]}")/../../resources" -name '*.svg' | LC_ALL=C sort)
    for ((i = 0; i < $2; i++)); do
        rsvg-convert -w $((16 + i % 240)) -h $((16 + i % 240)) -o "$1/image-$i.png" \
            "${svgs[$((i % ${#svgs[@]}))]}"
    done
}

make_payload() { # dir kind
    local dir=$1 i
    mapfile -t payload_dlls < <(find /usr/lib/x86_64-linux-gnu/wine/x86_64-windows -name '*.dll' \
        -printf '%s %p\n' | LC_ALL=C sort -k1,1nr -k2 | cut -d' ' -f2-)
    rm -rf "$dir"
    mkdir -p "$dir"
    if [ "$2" = realistic ]; then
        payload_binary "$dir/libcef.dll" $((160 * 1024 * 1024)) 0
        for ((i = 0; i < 20; i++)); do
            payload_binary "$dir/lib/module-$i.dll" $(((i % 8 + 1) * 1024 * 1024 + i * 4096)) $((i * 23))
        done
        for ((i = 0; i < 2400; i++)); do
            payload_text "$dir/resources/$((i % 40))/resource-$i.js" $((512 + i * 37 % 30000)) "$i"
        done
        for ((i = 0; i < 60; i++)); do
            payload_text "$dir/locales/locale-$i.pak" $((200000 + i * 5000)) $((i * 7))
        done
        payload_images "$dir/images" 500
    else
        payload_binary "$dir/big engine.dll" $((20 * 1024 * 1024)) 0
        for ((i = 0; i < 200; i++)); do
            payload_text "$dir/resources/$((i % 10))/resource-$i.js" $((512 + i * 97 % 8000)) "$i"
        done
        payload_images "$dir/images" 60
        payload_text "$dir/资源/中文名称.txt" 3000 1
        payload_text "$dir/with space/a file with spaces.txt" 2000 2
        payload_text "$dir/price\$1 100% wow! a&b.txt" 1000 3
        payload_text "$dir/a/b/c/d/e/f/g/h/i/j/k/l/deep.txt" 1000 4
        mkdir -p "$dir/empty folder"
        : >"$dir/zero bytes.bin"
        payload_text "$dir/read-only.txt" 500 5
        chmod 444 "$dir/read-only.txt"
    fi
    cp "$(dirname "${BASH_SOURCE[0]}")/../../build-windows/packed/Tandemo.exe" \
        "$(dirname "${BASH_SOURCE[0]}")/../../build-windows/packed/TandemoInstSvc.exe" "$dir/"
}
