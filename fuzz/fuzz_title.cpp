// A window title or environment value as the 8-bit buffer the platform fills.
#include "ipc/initpath.h"

#include <cstdint>
#include <string>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size)
{
    const std::string buffer(reinterpret_cast<const char *>(data), size);
    const QString text = InitPath::decodeLocal8Bit(buffer);
    if (text.contains(QChar(0)))
        __builtin_trap(); // the text ends at the first zero byte
    return 0;
}
