// Random X11 event records through the client-message decoder, against the wire format's rule:
// a ClientMessage (sent or not) of format 32 whose type is the posted-message atom, never None;
// its data words are the message, then wParam and lParam, each low word first.
#include "os/os.h"

#include <cstdint>
#include <cstring>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size)
{
    if (size < 4)
        return 0;
    std::uint32_t atom = 0;
    std::memcpy(&atom, data, 4);
    const std::uint8_t *record = data + 4;
    const std::size_t length = size - 4;
    const auto word = [record](std::size_t offset) {
        std::uint32_t value = 0;
        std::memcpy(&value, record + offset, 4);
        return std::uint64_t(value);
    };
    const bool ours =
        length >= 32 && (record[0] & 0x7f) == 33 && record[1] == 32 && atom != 0 && word(8) == atom;
    const auto message = os::decodeClientMessage(record, length, atom);
    if (message.has_value() != ours)
        __builtin_trap();
    if (message &&
        (message->window != word(4) || message->message != word(12) ||
         message->wParam != (word(20) << 32 | word(16)) ||
         std::uint64_t(message->lParam) != (word(28) << 32 | word(24)) || !message->privateCarrier))
        __builtin_trap();
    return 0;
}
