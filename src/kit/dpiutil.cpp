#include "kit/dpiutil.h"

namespace {

// Written only by the enumeration, read only by getMonitorScales; never reset.
float g_fPrimaryScale = 1.0f;
float g_fSecondaryScale = 1.0f;

constexpr std::uint32_t kMonitorInfoPrimary = 1; // MONITORINFOF_PRIMARY

} // namespace

DPIUtil::DPIUtil() : QObject(nullptr) {}

void DPIUtil::getMonitorScales(float *primary, float *secondary)
{
    for (const os::MonitorInfo &monitor : os::platform().enumerateMonitors()) {
        if (!monitorEnumProc(monitor))
            break;
    }
    *primary = g_fPrimaryScale;
    *secondary = g_fSecondaryScale;
}

float DPIUtil::getSystemScale()
{
    const std::optional<int> dpi = os::platform().systemDpi();
    if (!dpi)
        return 1.0f;
    const float scale = static_cast<float>(*dpi) / 96.0f;
    // A floor that replaces: anything below half scale is taken as a bogus answer.
    return scale < 0.5f ? 1.0f : scale;
}

bool DPIUtil::monitorEnumProc(const os::MonitorInfo &monitor)
{
    if (!monitor.infoOk)
        return true;
    const std::optional<std::uint32_t> dpi = os::platform().dpiForMonitor(monitor.handle);
    if (!dpi) {
        g_fSecondaryScale = getSystemScale();
        g_fPrimaryScale = g_fSecondaryScale;
        return true;
    }
    const float scale = static_cast<float>(static_cast<double>(*dpi) / 96.0);
    if (monitor.flags == kMonitorInfoPrimary)
        g_fPrimaryScale = scale;
    else
        g_fSecondaryScale = scale;
    return true;
}
