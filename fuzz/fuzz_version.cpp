// The version comparison: two UTF-8 strings separated by a zero byte.
#include "loading/versioncompare.h"

#include <cstdint>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size)
{
    const QByteArray bytes(reinterpret_cast<const char *>(data), static_cast<int>(size));
    const int zero = bytes.indexOf('\0');
    const QString a = QString::fromUtf8(zero < 0 ? bytes : bytes.left(zero));
    const QString b = zero < 0 ? QString() : QString::fromUtf8(bytes.mid(zero + 1));
    const auto ab = compareVersions(a, b);
    const auto ba = compareVersions(b, a);
    // Antisymmetric whenever both directions are comparable.
    if (ab && ba && *ab != -*ba)
        __builtin_trap();
    if (ab && (*ab < -1 || *ab > 1))
        __builtin_trap();
    return 0;
}
