// Random X11 event records through the client-message decoder.
#include "os/os.h"

#include <cstdint>
#include <cstring>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size)
{
    if (size < 4)
        return 0;
    std::uint32_t atom = 0;
    std::memcpy(&atom, data, 4);
    const auto message = os::decodeClientMessage(data + 4, size - 4, atom);
    if (message && (size - 4 < 32 || (data[4] & 0x7f) != 33 || data[5] != 32))
        __builtin_trap();
    return 0;
}
