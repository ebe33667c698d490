// Process-wide launch parameters and the process utilities. The style helpers of the same
// name space live in kit/globalstyle.h.
#pragma once

#include <QString>
#include <QStringList>

#include <cstdint>

#include "os/os.h"

namespace Global {

// Launch parameters: written once by main, read by every window.
void SetIPCWnd(os::WindowHandle hIPCWnd);
os::WindowHandle GetIPCWnd();
void SetDisableChoosePath(bool bDisableChoosePath);
bool GetDisableChoosePath();
void SetWithoutAgreement(bool bWithoutAgreement);
bool GetWithoutAgreement();
void SetVersionNew(const QString &strVersionNew);
QString GetVersionNew();
void SetVersionOld(const QString &strVersionOld);
QString GetVersionOld();
void SetInstallerProcId(std::int32_t iInstallerProcId);
std::int32_t GetInstallerProcId();
void SetIPCFilePath(const QString &strIPCFilePath);
QString GetIPCFilePath();
void SetUnicodeNsis(bool bIsUnicodeNsis);
bool GetUnicodeNsis();
void SetSelfTest(bool bSelfTest);
bool IsSelfTest();

// Process utilities, over os::platform().
bool IsProcessExists(const QString &strExeName);
bool IsProcessExists(std::uint32_t processId);
bool KillProcessByProcessName(const QString &strExeName, bool bKillAll);
os::ProcessHandle StartProcess(const QString &strProgram, const QString &strArguments,
                               std::uint32_t &processId);

} // namespace Global

// Ends the event loop with code 0 after `ms`, at once in self-test mode.
void quitLater(int ms);

// The application suite, in the order its processes are ended.
const QStringList &appSuiteProcessNames();
