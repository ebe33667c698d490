#include "app/global.h"
#include "app/suite.h"

#include <QCoreApplication>
#include <QDebug>
#include <QTimer>

#include <algorithm>
#include <optional>
#include <string>
#include <vector>

namespace {

struct LaunchParameters
{
    os::WindowHandle hIPCWnd = 0;
    bool bDisableChoosePath = false;
    bool bWithoutAgreement = false;
    QString strVersionNew;
    QString strVersionOld;
    std::int32_t iInstallerProcId = 0;
    QString strIPCFilePath;
    bool bIsUnicodeNsis = false;
    bool bSelfTest = true;
};

LaunchParameters &params()
{
    static LaunchParameters p;
    return p;
}

// The process list, or nullopt after logging the failure under `who`.
std::optional<std::vector<os::ProcessEntry>> takeSnapshot(const char *who)
{
    std::vector<os::ProcessEntry> entries;
    std::uint32_t error = 0;
    if (os::platform().snapshotProcesses(entries, error))
        return entries;
    qDebug().noquote()
        << QString("%1: CreateToolhelp32Snapshot fail with %2").arg(QLatin1String(who)).arg(error);
    return std::nullopt;
}

bool sameExeName(const std::string &entryName, const QString &strExeName)
{
    return QString::fromUtf8(entryName.c_str()).compare(strExeName, Qt::CaseInsensitive) == 0;
}

} // namespace

namespace Global {

void SetIPCWnd(os::WindowHandle hIPCWnd)
{
    params().hIPCWnd = hIPCWnd;
}
os::WindowHandle GetIPCWnd()
{
    return params().hIPCWnd;
}
void SetDisableChoosePath(bool bDisableChoosePath)
{
    params().bDisableChoosePath = bDisableChoosePath;
}
bool GetDisableChoosePath()
{
    return params().bDisableChoosePath;
}
void SetWithoutAgreement(bool bWithoutAgreement)
{
    params().bWithoutAgreement = bWithoutAgreement;
}
bool GetWithoutAgreement()
{
    return params().bWithoutAgreement;
}
void SetVersionNew(const QString &strVersionNew)
{
    params().strVersionNew = strVersionNew;
}
QString GetVersionNew()
{
    return params().strVersionNew;
}
void SetVersionOld(const QString &strVersionOld)
{
    params().strVersionOld = strVersionOld;
}
QString GetVersionOld()
{
    return params().strVersionOld;
}
void SetInstallerProcId(std::int32_t iInstallerProcId)
{
    params().iInstallerProcId = iInstallerProcId;
}
std::int32_t GetInstallerProcId()
{
    return params().iInstallerProcId;
}
void SetIPCFilePath(const QString &strIPCFilePath)
{
    params().strIPCFilePath = strIPCFilePath;
}
QString GetIPCFilePath()
{
    return params().strIPCFilePath;
}
void SetUnicodeNsis(bool bIsUnicodeNsis)
{
    params().bIsUnicodeNsis = bIsUnicodeNsis;
}
bool GetUnicodeNsis()
{
    return params().bIsUnicodeNsis;
}
void SetSelfTest(bool bSelfTest)
{
    params().bSelfTest = bSelfTest;
}
bool IsSelfTest()
{
    return params().bSelfTest;
}

bool IsProcessExists(const QString &strExeName)
{
    const auto entries = takeSnapshot("Global::IsProcessExists");
    if (!entries)
        return false;
    return std::any_of(entries->begin(), entries->end(), [&](const os::ProcessEntry &entry) {
        return sameExeName(entry.exeName, strExeName);
    });
}

bool IsProcessExists(std::uint32_t processId)
{
    const auto entries = takeSnapshot("Global::IsProcessExists");
    if (!entries)
        return false;
    return std::any_of(entries->begin(), entries->end(),
                       [&](const os::ProcessEntry &entry) { return entry.id == processId; });
}

bool KillProcessByProcessName(const QString &strExeName, bool bKillAll)
{
    const auto entries = takeSnapshot("Global::KillProcessByProcessName");
    if (!entries)
        return false;
    bool bResult = true;
    for (const os::ProcessEntry &entry : *entries) {
        if (!sameExeName(entry.exeName, strExeName))
            continue;
        if (!os::platform().terminateProcess(entry.id))
            bResult = false;
        if (!bKillAll)
            break;
    }
    return bResult;
}

os::ProcessHandle StartProcess(const QString &strProgram, const QString &strArguments,
                               std::uint32_t &processId)
{
    // Not quoted: callers pass a bare file name, as CreateProcessA's own search expects.
    const QByteArray commandLine = QString("%1 %2").arg(strProgram, strArguments).toLocal8Bit();
    os::ProcessId newId = 0;
    const os::ProcessHandle handle = os::platform().startProcess(
        std::string(commandLine.constData(), commandLine.size()), newId);
    if (handle != 0)
        processId = newId;
    return handle;
}

} // namespace Global

void quitLater(int ms)
{
    if (Global::IsSelfTest()) {
        QCoreApplication::exit(0);
        return;
    }
    QTimer::singleShot(ms, [] { QCoreApplication::exit(0); });
}

const QStringList &appSuiteProcessNames()
{
    static const QStringList names = [] {
        QStringList out;
        for (const char *name : kAppSuiteExecutables)
            out << QString::fromLatin1(name);
        return out;
    }();
    return names;
}
