#include "app/launchparams.h"

#include "app/global.h"

#include <QDebug>

namespace LaunchParams {

std::int32_t toInt32(const char *arg)
{
    bool ok = false;
    const int value = QString::fromLocal8Bit(arg).toInt(&ok, 10);
    return ok ? value : 0;
}

QString toText(const char *arg)
{
    return QString::fromLocal8Bit(arg);
}

void parseArgument(int index, int argc, char **argv)
{
    const char *arg = index < argc ? argv[index] : nullptr;
    switch (index) {
    case 1: {
        const std::int32_t value = arg ? toInt32(arg) : 0;
        // Sign-extended to pointer width, as a HWND made from an int would be.
        Global::SetIPCWnd(static_cast<os::WindowHandle>(static_cast<std::intptr_t>(value)));
        qDebug() << "hIPCWnd=" << value;
        break;
    }
    case 2:
        Global::SetDisableChoosePath(arg ? toInt32(arg) != 0 : false);
        qDebug() << "bDisableChoosePath=" << Global::GetDisableChoosePath();
        break;
    case 3:
        Global::SetWithoutAgreement(arg ? toInt32(arg) != 0 : false);
        qDebug() << "bWithoutAgreement=" << Global::GetWithoutAgreement();
        break;
    case 4:
        Global::SetVersionNew(arg ? toText(arg) : QString("3.0.0.5"));
        qDebug() << "strVersionNew=" << Global::GetVersionNew();
        break;
    case 5:
        Global::SetVersionOld(arg ? toText(arg) : QString("0.0.0.0"));
        qDebug() << "strVersionOld=" << Global::GetVersionOld();
        break;
    case 6:
        // The engine's long is 32 bits: out-of-range ids are 0, as on the engine's platform.
        Global::SetInstallerProcId(arg ? toInt32(arg) : 0);
        qDebug() << "iInstallerProcId=" << Global::GetInstallerProcId();
        break;
    case 7:
        Global::SetIPCFilePath(arg ? toText(arg) : QString());
        qDebug() << "strIPCFilePath=" << Global::GetIPCFilePath();
        break;
    case 8:
        Global::SetUnicodeNsis(arg ? toInt32(arg) != 0 : false);
        qDebug() << "bIsUnicodeNsis=" << Global::GetUnicodeNsis();
        break;
    default:
        break;
    }
}

} // namespace LaunchParams
