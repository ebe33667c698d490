// The folder the dialog returns, as any UTF-8 text.
#include "mainform/installlogic.h"

#include <cstdint>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size)
{
    const QString chosen =
        QString::fromUtf8(reinterpret_cast<const char *>(data), static_cast<int>(size));
    const QString path = InstallLogic::browsedInstallPath(chosen);
    if (path.contains('/') || !path.endsWith("\\Tandemo"))
        __builtin_trap();
    return 0;
}
