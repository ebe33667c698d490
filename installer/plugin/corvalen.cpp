// corvalen.dll: the engine's side of the conversation with CorvalenSetup.exe, offered to an
// NSIS script (Unicode, amd64). The script's flow:
//
//   corvalen::Start FRONTEND IPCFILE FOLDER REQUIRED_MB NEW_VERSION OLD_VERSION DISABLE_CHOOSE_PATH
//                   WITHOUT_AGREEMENT                     -> "ok" | "error"
//   corvalen::WaitForChoice                               -> the folder to install into | ""
//   corvalen::Progress PERCENT   (after each section)     -> "ok" | "cancel"
//   corvalen::Finish                                      -> "start" | "closed"
//
// and around them, for the installer's own guarantees (transaction.h):
//
//   corvalen::OpenLog PATH        every call below logs there, in UTF-8
//   corvalen::Log TEXT
//   corvalen::Lock                                        -> "ok" | "busy"
//   corvalen::Recover FOLDER      finishes or undoes what an interrupted run left
//   corvalen::Commit FOLDER       swaps in FOLDER.new     -> "done" | "locked" | "failed"
//   corvalen::CloseSuite          ends the application suite's processes -> "ok" | "failed"
//   corvalen::RemoveInstalled FOLDER   the uninstall    -> "ok" | "failed"
//   corvalen::RemoveOwnCopy       the uninstaller's copy in %TEMP% deleted once it has ended
//
// Start writes the proposed FOLDER into IPCFILE (UTF-16LE), starts the front end with the eight
// arguments and returns. WaitForChoice answers the front end until the user starts the
// installation ("" when the user cancelled, the version gate refused or the front end ended).
// Progress posts a percentage below 100; Finish posts 100 and waits until the user presses
// "start using" or the front end ends. After a cancel or "start using" the installer waits for
// the front end to end before it does. Calls that post the front end's window go through
// src/os, as the front end's own do.
#include "nsisapi.h"
#include "transaction.h"

#include "app/suite.h"
#include "ipc/ipcmessages.h"
#include "os/os.h"

#include <tlhelp32.h>

#include <algorithm>
#include <cstdint>
#include <string>

namespace {

HMODULE g_module = nullptr;
HWND g_window = nullptr;
os::ProcessHandle g_frontEnd = 0;
os::WindowHandle g_frontWindow = 0;
std::wstring g_proposal;
std::int64_t g_requiredMB = 0;
std::wstring g_chosen;
bool g_cancelled = false;
bool g_startRequested = false;
std::wstring g_frontEndFolder;
std::wstring g_logPath;

std::string utf8(const std::wstring &text)
{
    const int n = WideCharToMultiByte(CP_UTF8, 0, text.c_str(), int(text.size()), nullptr, 0,
                                      nullptr, nullptr);
    std::string out(std::size_t(std::max(n, 0)), '\0');
    WideCharToMultiByte(CP_UTF8, 0, text.c_str(), int(text.size()), out.data(), n, nullptr,
                        nullptr);
    return out;
}

// One line, with the local time; opened and closed each time, so that a killed installer
// loses nothing it logged.
void logLine(const std::wstring &text)
{
    if (g_logPath.empty())
        return;
    const HANDLE file = CreateFileW(g_logPath.c_str(), FILE_APPEND_DATA, FILE_SHARE_READ, nullptr,
                                    OPEN_ALWAYS, 0, nullptr);
    if (file == INVALID_HANDLE_VALUE)
        return;
    SYSTEMTIME now;
    GetLocalTime(&now);
    char stamp[32];
    wsprintfA(stamp, "%04u-%02u-%02u %02u:%02u:%02u.%03u ", now.wYear, now.wMonth, now.wDay,
              now.wHour, now.wMinute, now.wSecond, now.wMilliseconds);
    const std::string line = stamp + utf8(text) + "\r\n";
    DWORD written = 0;
    WriteFile(file, line.data(), DWORD(line.size()), &written, nullptr);
    CloseHandle(file);
}

// The running processes whose executable lies in `folder`.
int processesRunningFrom(const std::wstring &folder)
{
    const HANDLE snapshot = CreateToolhelp32Snapshot(TH32CS_SNAPPROCESS, 0);
    if (snapshot == INVALID_HANDLE_VALUE)
        return 0;
    int count = 0;
    PROCESSENTRY32W entry = {};
    entry.dwSize = sizeof entry;
    for (BOOL more = Process32FirstW(snapshot, &entry); more;
         more = Process32NextW(snapshot, &entry)) {
        const HANDLE process =
            OpenProcess(PROCESS_QUERY_LIMITED_INFORMATION, FALSE, entry.th32ProcessID);
        if (!process)
            continue;
        wchar_t image[MAX_PATH * 2];
        DWORD size = DWORD(std::size(image));
        if (QueryFullProcessImageNameW(process, 0, image, &size) &&
            CompareStringOrdinal(image, int(std::min<std::size_t>(size, folder.size())),
                                 folder.c_str(), int(folder.size()), TRUE) == CSTR_EQUAL &&
            size > folder.size() && image[folder.size()] == L'\\')
            ++count;
        CloseHandle(process);
    }
    CloseHandle(snapshot);
    return count;
}

UINT_PTR pluginCallback(nsis::PluginMessage message)
{
    if (message != nsis::PluginMessage::Unload)
        return 0;
    if (g_window) {
        DestroyWindow(g_window);
        g_window = nullptr;
    }
    // The engine removes its plug-in folder next: the helper service the front end started
    // from there ends a moment after the front end, and its file would stay behind.
    for (int i = 0; i < 50 && !g_frontEndFolder.empty() && processesRunningFrom(g_frontEndFolder);
         ++i)
        Sleep(100);
    return 0;
}

void keepLoaded(nsis::ExtraParameters *extra)
{
    if (extra && extra->registerPluginCallback)
        extra->registerPluginCallback(g_module, pluginCallback);
}

// In the ANSI code page; `lossy` tells whether a character had no equivalent there.
std::string narrow(const std::wstring &text, bool *lossy = nullptr)
{
    BOOL usedDefault = FALSE;
    const int n = WideCharToMultiByte(CP_ACP, WC_NO_BEST_FIT_CHARS, text.c_str(), int(text.size()),
                                      nullptr, 0, nullptr, &usedDefault);
    std::string out(std::size_t(std::max(n, 0)), '\0');
    WideCharToMultiByte(CP_ACP, WC_NO_BEST_FIT_CHARS, text.c_str(), int(text.size()), out.data(), n,
                        nullptr, nullptr);
    if (lossy)
        *lossy = usedDefault;
    return out;
}

// The front end's entry point takes its arguments in the ANSI code page: a path that does not
// survive the conversion is handed over in its short (8.3) form.
std::string ansiPath(const std::wstring &path)
{
    bool lossy = false;
    std::string out = narrow(path, &lossy);
    if (lossy) {
        wchar_t shortPath[MAX_PATH];
        const DWORD n = GetShortPathNameW(path.c_str(), shortPath, MAX_PATH);
        if (n > 0 && n < MAX_PATH)
            out = narrow(shortPath);
    }
    return out;
}

// One argument as the C runtime's command-line parser reads it back.
std::string quoted(const std::string &argument)
{
    if (!argument.empty() && argument.find_first_of(" \t\"") == std::string::npos)
        return argument;
    std::string out = "\"";
    std::size_t backslashes = 0;
    for (const char c : argument) {
        if (c == '\\') {
            ++backslashes;
            continue;
        }
        out.append(c == '"' ? 2 * backslashes + 1 : backslashes, '\\');
        backslashes = 0;
        out += c;
    }
    out.append(2 * backslashes, '\\');
    return out + "\"";
}

bool isDirectory(const std::wstring &path)
{
    const DWORD attributes = GetFileAttributesW(path.c_str());
    return attributes != INVALID_FILE_ATTRIBUTES && (attributes & FILE_ATTRIBUTE_DIRECTORY);
}

std::wstring parentOf(std::wstring path)
{
    while (!path.empty() && (path.back() == L'\\' || path.back() == L'/'))
        path.pop_back();
    const std::size_t cut = path.find_last_of(L"\\/");
    return cut == std::wstring::npos ? std::wstring() : path.substr(0, cut);
}

std::wstring nearestExistingAncestor(std::wstring path)
{
    while (!path.empty() && !isDirectory(path))
        path = parentOf(path);
    return path;
}

// Writable when a file can be made where the folder is, or would be created.
bool writable(const std::wstring &folder)
{
    const std::wstring base = nearestExistingAncestor(folder);
    if (base.empty())
        return false;
    const std::wstring probe =
        base + L"\\corvalen-probe-" + std::to_wstring(GetCurrentProcessId()) + L".tmp";
    const HANDLE file = CreateFileW(probe.c_str(), GENERIC_WRITE, 0, nullptr, CREATE_NEW,
                                    FILE_ATTRIBUTE_TEMPORARY | FILE_FLAG_DELETE_ON_CLOSE, nullptr);
    if (file == INVALID_HANDLE_VALUE)
        return false;
    CloseHandle(file);
    return true;
}

std::int64_t freeMB(const std::wstring &folder)
{
    ULARGE_INTEGER available;
    const std::wstring base = nearestExistingAncestor(folder);
    if (base.empty() || !GetDiskFreeSpaceExW((base + L"\\").c_str(), &available, nullptr, nullptr))
        return 0;
    return std::int64_t(std::min<ULONGLONG>(available.QuadPart / (1024 * 1024), 0x7fffffff));
}

// Nothing before the front end named its window: a null window would post to this thread.
void post(std::uint32_t message, std::uint64_t wParam, std::int64_t lParam)
{
    if (g_frontWindow)
        os::platform().postMessage(g_frontWindow, message, wParam, lParam);
}

// The front end appends "\Tandemo" to the folder the user picks: a missing parent means the
// pick itself is gone. The proposal is the script's own and is made when installing.
void reportFolder(const std::wstring &folder, std::uint64_t resolve)
{
    const bool missing = !resolve && !isDirectory(parentOf(folder));
    post(WM_PATH_INFO, resolve, writable(folder) ? 1 : 0);
    post(WM_DISK_SPACE, std::uint64_t(g_requiredMB), missing ? -1 : freeMB(folder));
}

// The front end's message window title, read as Unicode: no ANSI loss on the way back.
std::wstring frontEndTitle()
{
    wchar_t buffer[4096] = {};
    GetWindowTextW(reinterpret_cast<HWND>(g_frontWindow), buffer, 4096);
    return buffer;
}

void handle(const MSG &msg)
{
    switch (msg.message) {
    case WM_IPC_HWND:
        g_frontWindow = os::WindowHandle(msg.wParam);
        reportFolder(g_proposal, 1);
        break;
    case WM_INSTALL_PATH:
        if (msg.wParam == 0)
            reportFolder(frontEndTitle(), 0);
        else
            g_chosen = frontEndTitle();
        break;
    case WM_COMPLETE_INSTALL:
        g_startRequested = true;
        break;
    case WM_CANCEL_INSTALL:
        g_cancelled = true;
        break;
    default:
        break;
    }
}

bool frontEndEnded()
{
    return !g_frontEnd || os::platform().hasProcessEnded(g_frontEnd);
}

// Handles what arrived, and waits for more until `done`, the front end has ended or `waitMs`
// have passed.
template <typename Done> void pump(Done done, ULONGLONG waitMs)
{
    const ULONGLONG end = waitMs == INFINITE ? ~0ULL : GetTickCount64() + waitMs;
    for (;;) {
        MSG msg;
        while (PeekMessageW(&msg, nullptr, 0, 0, PM_REMOVE)) {
            if (msg.hwnd == g_window && msg.message >= WM_USER)
                handle(msg);
            else
                DispatchMessageW(&msg);
        }
        if (done() || frontEndEnded() || GetTickCount64() >= end)
            return;
        HANDLE process = reinterpret_cast<HANDLE>(g_frontEnd);
        MsgWaitForMultipleObjects(1, &process, FALSE, 200, QS_ALLINPUT);
    }
}

// The front end ends a second after its last message: the installer outlives its window, so
// that whoever waits for the installer (or runs it again) finds the front end gone.
void waitForFrontEndEnd()
{
    pump([] { return false; }, 5000);
}

bool writeIpcFile(const std::wstring &path, const std::wstring &folder)
{
    const HANDLE file =
        CreateFileW(path.c_str(), GENERIC_WRITE, 0, nullptr, CREATE_ALWAYS, 0, nullptr);
    if (file == INVALID_HANDLE_VALUE)
        return false;
    // UTF-16LE code units, no byte-order mark, no terminator.
    DWORD written = 0;
    const DWORD bytes = DWORD(folder.size() * sizeof(wchar_t));
    const bool ok = WriteFile(file, folder.data(), bytes, &written, nullptr) && written == bytes;
    CloseHandle(file);
    return ok;
}

bool createWindow()
{
    if (g_window)
        return true;
    WNDCLASSW windowClass = {};
    windowClass.lpfnWndProc = DefWindowProcW;
    windowClass.hInstance = g_module;
    windowClass.lpszClassName = L"CorvalenInstallerEngine";
    RegisterClassW(&windowClass);
    // A hidden top-level window: the front end hides it again every 100 ms and may read its
    // title, so it cannot be message-only.
    g_window = CreateWindowExW(WS_EX_TOOLWINDOW, windowClass.lpszClassName, L"", WS_POPUP, 0, 0, 0,
                               0, nullptr, nullptr, g_module, nullptr);
    return g_window != nullptr;
}

} // namespace

BOOL WINAPI DllMain(HINSTANCE instance, DWORD reason, LPVOID)
{
    if (reason == DLL_PROCESS_ATTACH)
        g_module = instance;
    return TRUE;
}

NSIS_PLUGIN_FUNCTION(Start)
{
    keepLoaded(extra);
    nsis::Stack stack(stringSize, stackTop);
    const std::wstring frontEnd = stack.pop(), ipcFile = stack.pop();
    g_proposal = stack.pop();
    g_requiredMB = std::max(0LL, _wtoi64(stack.pop().c_str()));
    const std::wstring versionNew = stack.pop(), versionOld = stack.pop();
    const bool disableChoosePath = stack.pop() == L"1", withoutAgreement = stack.pop() == L"1";
    g_frontWindow = 0;
    g_chosen.clear();
    g_cancelled = g_startRequested = false;
    g_frontEndFolder = frontEnd.substr(0, frontEnd.find_last_of(L"\\/"));
    if (!createWindow() || !writeIpcFile(ipcFile, g_proposal)) {
        stack.push(L"error");
        return;
    }
    os::Platform &platform = os::platform();
    const std::string commandLine =
        quoted(ansiPath(frontEnd)) + " " +
        std::to_string(os::windowHandleArgument(reinterpret_cast<os::WindowHandle>(g_window))) +
        " " + (disableChoosePath ? "1" : "0") + " " + (withoutAgreement ? "1" : "0") + " " +
        quoted(narrow(versionNew)) + " " + quoted(narrow(versionOld)) + " " +
        std::to_string(platform.currentProcessId()) + " " + quoted(ansiPath(ipcFile)) + " 1";
    os::ProcessId id = 0;
    g_frontEnd = platform.startProcess(commandLine, id);
    logLine(L"front end " + std::wstring(g_frontEnd ? L"started: " : L"could not start: ") +
            frontEnd + L", proposing " + g_proposal);
    stack.push(g_frontEnd ? L"ok" : L"error");
}

NSIS_PLUGIN_FUNCTION(WaitForChoice)
{
    keepLoaded(extra);
    nsis::Stack stack(stringSize, stackTop);
    pump([] { return !g_chosen.empty() || g_cancelled; }, INFINITE);
    if (g_cancelled)
        waitForFrontEndEnd();
    logLine(g_cancelled || g_chosen.empty() ? L"front end: cancelled or refused before installing"
                                            : L"front end: install into " + g_chosen);
    stack.push(g_cancelled ? std::wstring() : g_chosen);
}

NSIS_PLUGIN_FUNCTION(Progress)
{
    keepLoaded(extra);
    nsis::Stack stack(stringSize, stackTop);
    // 100 belongs to Finish: the front end shows its completion page after it.
    const int percent = std::clamp(_wtoi(stack.pop().c_str()), 0, 99);
    if (!g_frontEnd) { // no window to report to
        stack.push(L"ok");
        return;
    }
    pump([] { return true; }, 0);
    const bool cancel = g_cancelled || frontEndEnded();
    if (cancel) {
        logLine(L"front end closed during the copy, at " + std::to_wstring(percent) + L"%");
        waitForFrontEndEnd();
    } else {
        post(WM_MYPROGRESS, std::uint64_t(percent), 0);
    }
    stack.push(cancel ? L"cancel" : L"ok");
}

NSIS_PLUGIN_FUNCTION(Finish)
{
    keepLoaded(extra);
    nsis::Stack stack(stringSize, stackTop);
    post(WM_MYPROGRESS, 100, 0);
    pump([] { return g_startRequested || g_cancelled; }, INFINITE);
    waitForFrontEndEnd();
    stack.push(g_startRequested ? L"start" : L"closed");
}

NSIS_PLUGIN_FUNCTION(OpenLog)
{
    keepLoaded(extra);
    nsis::Stack stack(stringSize, stackTop);
    g_logPath = stack.pop();
}

NSIS_PLUGIN_FUNCTION(Log)
{
    keepLoaded(extra);
    nsis::Stack stack(stringSize, stackTop);
    logLine(stack.pop());
}

// The installer's and the uninstaller's own guard, held until the process ends.
NSIS_PLUGIN_FUNCTION(Lock)
{
    keepLoaded(extra);
    nsis::Stack stack(stringSize, stackTop);
    const bool mine =
        os::platform().createNamedMutex("Local\\CorvalenInstaller") == os::MutexResult::Created;
    stack.push(mine ? L"ok" : L"busy");
}

NSIS_PLUGIN_FUNCTION(Recover)
{
    keepLoaded(extra);
    nsis::Stack stack(stringSize, stackTop);
    transaction::recover(stack.pop(), logLine);
}

NSIS_PLUGIN_FUNCTION(Commit)
{
    keepLoaded(extra);
    nsis::Stack stack(stringSize, stackTop);
    switch (transaction::commit(stack.pop(), logLine)) {
    case transaction::Result::Done:
        stack.push(L"done");
        break;
    case transaction::Result::Locked:
        stack.push(L"locked");
        break;
    case transaction::Result::Failed:
        stack.push(L"failed");
        break;
    }
}

NSIS_PLUGIN_FUNCTION(RemoveInstalled)
{
    keepLoaded(extra);
    nsis::Stack stack(stringSize, stackTop);
    stack.push(transaction::removeInstalled(stack.pop(), logLine) ? L"ok" : L"failed");
}

NSIS_PLUGIN_FUNCTION(RemoveOwnCopy)
{
    keepLoaded(extra);
    (void)stringSize, (void)stackTop;
    transaction::removeOwnCopy(logLine);
}

// Ends the suite's processes, as the front end does before installing, and waits for them.
NSIS_PLUGIN_FUNCTION(CloseSuite)
{
    keepLoaded(extra);
    nsis::Stack stack(stringSize, stackTop);
    os::Platform &platform = os::platform();
    const auto running = [&platform](bool end) {
        std::vector<os::ProcessEntry> processes;
        std::uint32_t error = 0;
        int count = 0;
        if (!platform.snapshotProcesses(processes, error))
            return -1;
        for (const char *name : kAppSuiteExecutables)
            for (const os::ProcessEntry &process : processes)
                if (lstrcmpiA(process.exeName.c_str(), name) == 0) {
                    ++count;
                    if (end) {
                        logLine(L"ending " + std::wstring(name, name + lstrlenA(name)));
                        platform.terminateProcess(process.id);
                    }
                }
        return count;
    };
    int left = running(true);
    for (int waitedMs = 0; left > 0 && waitedMs < 5000; waitedMs += 100) {
        Sleep(100);
        left = running(false);
    }
    stack.push(left == 0 ? L"ok" : L"failed");
}
