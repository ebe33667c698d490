#include "app/startup.h"

#include "kit/dpiutil.h"

#include <QCoreApplication>
#include <QDebug>

namespace Startup {

QByteArray screenScaleFactors(float primary, float secondary)
{
    return (QString::number(static_cast<double>(primary), 'g', 6) + ";" +
            QString::number(static_cast<double>(secondary), 'g', 6))
        .toUtf8();
}

bool isSelfTest(int argc)
{
    return argc < 2;
}

void initDpiEnvironment()
{
    os::Platform &platform = os::platform();
    // Per-monitor aware only while the monitors are read; the rest of the run is system aware.
    platform.setProcessDpiAwareness(2);
    float primary = 1.0f;
    float secondary = 1.0f;
    DPIUtil::getMonitorScales(&primary, &secondary);
    platform.setProcessDpiAwareness(1);
    qputenv("QT_SCREEN_SCALE_FACTORS", screenScaleFactors(primary, secondary));
    QCoreApplication::setAttribute(Qt::AA_UseHighDpiPixmaps, true);

    // A plugin path inherited from the engine's environment must not pick our plugins. Each is
    // read first and the value dropped unused: the program reads them so, then empties them.
    qgetenv("QT_QPA_PLATFORM_PLUGIN_PATH");
    qDebug() << "qputenv " << qputenv("QT_QPA_PLATFORM_PLUGIN_PATH", QByteArray(""));
    qgetenv("QT_PLUGIN_PATH");
    qDebug() << "qputenv " << qputenv("QT_PLUGIN_PATH", QByteArray(""));

#ifndef Q_OS_WIN
    // Posted messages arrive through X, and the windows need no OpenGL.
    if (qEnvironmentVariableIsEmpty("QT_QPA_PLATFORM"))
        qputenv("QT_QPA_PLATFORM", "xcb");
    if (qEnvironmentVariableIsEmpty("QT_XCB_GL_INTEGRATION"))
        qputenv("QT_XCB_GL_INTEGRATION", "none");
#endif
}

} // namespace Startup
