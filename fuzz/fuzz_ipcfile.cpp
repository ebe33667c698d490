// The IPC file: any bytes as UTF-16LE. Each byte pair is one code unit, low byte first; an odd
// last byte is dropped; nothing else is removed (a byte-order mark or a zero unit stays).
#include "ipc/initpath.h"

#include <cstdint>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size)
{
    const QByteArray bytes(reinterpret_cast<const char *>(data), static_cast<int>(size));
    const QString text = InitPath::decodeIpcFile(bytes);
    if (text.size() != bytes.size() / 2)
        __builtin_trap();
    for (int i = 0; i < text.size(); ++i)
        if (text[i].unicode() != (data[2 * i] | data[2 * i + 1] << 8))
            __builtin_trap();
    return 0;
}
