#include "os/os.h"

namespace os {

namespace {
Platform *g_replacement = nullptr;
}

Platform &platform()
{
    return g_replacement ? *g_replacement : realPlatform();
}

void setPlatform(Platform *replacement)
{
    g_replacement = replacement;
}

} // namespace os
