// The IPC file: any bytes as UTF-16LE.
#include "ipc/initpath.h"

#include <cstdint>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size)
{
    const QByteArray bytes(reinterpret_cast<const char *>(data), static_cast<int>(size));
    const QString text = InitPath::decodeIpcFile(bytes);
    if (text.size() != bytes.size() / 2)
        __builtin_trap();
    return 0;
}
