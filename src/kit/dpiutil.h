// Monitor scale factors (1.0 = 96 dpi), read before the application object exists.
#pragma once

#include <QObject>

#include <cstdint>

#include "os/os.h"

class DPIUtil final : public QObject
{
    Q_OBJECT
    Q_DISABLE_COPY_MOVE(DPIUtil)

public:
    DPIUtil();

    static void getMonitorScales(float *primary, float *secondary);
    static float getSystemScale();

private:
    // One monitor of the enumeration; always asks to go on.
    static bool monitorEnumProc(const os::MonitorInfo &monitor);
};
