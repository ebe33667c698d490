// corvalen.dll: the engine's side of the conversation with CorvalenSetup.exe, offered to an
// NSIS script (Unicode, amd64), with the installer's own guarantees. Every function takes its
// arguments from the stack and leaves its answer there; installer/corvalen.nsi shows the order.
//
// The conversation:
//   Start FRONTEND IPCFILE FOLDER REQUIRED_MB NEW_VERSION OLD_VERSION DISABLE_CHOOSE_PATH
//         WITHOUT_AGREEMENT                      -> "ok" | "error" | "busy" (another front end)
//   WaitForChoice                                -> "chosen" | "cancelled" | "ended", then the
//   folder Total BYTES                                  the bytes to stage, before the first file
//   Staging PATH DONE SIZE  (before each file)   -> "ok" | "cancel" | "ended"
//   Progress PERCENT                             -> "ok" | "cancel" | "ended"
//   Finish                                       -> "start" | "closed" | "ended" | "late-cancel"
//
// The run (transaction.h): Begin FOLDER -> the folder to stage into ("" when it cannot start);
// then the registration it will make: SetValue KEY NAME TEXT, SetNumber KEY NAME N,
// RemoveValue KEY NAME, RemoveKey KEY, Shortcut LINK TARGET FOLDER, RemoveShortcut LINK,
// Previous FOLDER, Uninstall (the folder's listed files go); Commit -> "done" | "locked" |
// "failed" | "cancel" | "ended"; Abort; Recover -> "ok" | "failed".
//
// Around them: OpenLog PATH KIND -> the log's path; Log TEXT; WriteError PATH (why a staged file
// could not be written); Lock -> "ok" | "busy"; Account -> "user" | "elevated" | "system";
// InstalledVersion INSTALLED OURS -> "older" | "same" | "newer" | "invalid";
// InspectFolder FOLDER REGISTERED -> "absent" | "empty" | "installed" | "occupied" | "file" |
// "protected" | "nested"; SameFolder A B -> "1" | "0"; CloseSuite -> "ok" | "failed";
// RemoveOwnCopy.
//
// Start writes the proposed FOLDER into IPCFILE (UTF-16LE), starts the front end with the eight
// arguments and returns. WaitForChoice answers the front end until the user starts the
// installation. Progress posts a percentage below 100; Finish posts 100 and waits until the
// user presses "start using" or the front end ends. After a cancel or "start using" the
// installer waits for the front end to end before it does. Calls that post the front end's
// window go through src/os, as the front end's own do.
#include "checks.h"
#include "nsisapi.h"
#include "transaction.h"
#include "winutil.h"

#include "app/suite.h"
#include "ipc/ipcmessages.h"
#include "os/os.h"

#include <tlhelp32.h>

#include <algorithm>
#include <atomic>
#include <cstdint>
#include <map>
#include <string>

namespace {

HMODULE g_module = nullptr;
HWND g_window = nullptr;
os::ProcessHandle g_frontEnd = 0;
std::atomic<os::WindowHandle> g_frontWindow{0};
std::wstring g_proposal;
std::int64_t g_requiredMB = 0;
std::wstring g_chosen;
bool g_cancelled = false;
bool g_startRequested = false;
std::wstring g_frontEndFolder;
HANDLE g_log = INVALID_HANDLE_VALUE;
bool g_locked = false;
transaction::Plan g_plan;

// One line, with the local time, written at once: a killed installer loses nothing it logged.
void logLine(const std::wstring &text)
{
    if (g_log == INVALID_HANDLE_VALUE)
        return;
    SYSTEMTIME now;
    GetLocalTime(&now);
    char stamp[32];
    wsprintfA(stamp, "%04u-%02u-%02u %02u:%02u:%02u.%03u ", now.wYear, now.wMonth, now.wDay,
              now.wHour, now.wMinute, now.wSecond, now.wMilliseconds);
    const std::string line = stamp + winutil::toUtf8(text) + "\r\n";
    DWORD written = 0;
    WriteFile(g_log, line.data(), DWORD(line.size()), &written, nullptr);
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
            winutil::isInside(std::wstring(image, size), folder))
            ++count;
        CloseHandle(process);
    }
    CloseHandle(snapshot);
    return count;
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
// survive the conversion is handed over in its short (8.3) form; "" when it has none either.
std::string ansiPath(const std::wstring &path)
{
    bool lossy = false;
    std::string out = narrow(path, &lossy);
    if (lossy) {
        wchar_t shortPath[MAX_PATH];
        const DWORD n = GetShortPathNameW(path.c_str(), shortPath, MAX_PATH);
        out = n > 0 && n < MAX_PATH ? narrow(std::wstring(shortPath, n), &lossy) : std::string();
        if (lossy)
            out.clear();
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

std::wstring nearestExistingAncestor(std::wstring path)
{
    while (!path.empty() && !winutil::isDirectory(path)) {
        const std::wstring up = winutil::parentOf(path);
        path = up == path ? std::wstring() : up;
    }
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
    if (const os::WindowHandle window = g_frontWindow)
        os::platform().postMessage(window, message, wParam, lParam);
}

// The bar follows the bytes staged, never backwards: before each file the script names it with
// the bytes staged before it and its size, and a watcher reads how far the file has come while
// NSIS unpacks it, so that the bar moves inside a large file too. From a solid block NSIS
// decompresses a file into a temporary file of its own in %TEMP% ("ns*.tmp") and copies it
// into place only once whole: what that file has grown by since the file was named counts as
// well. The staging ends at 95 %; the commit, then Finish's 100 % follow.
struct Staging
{
    SRWLOCK lock = SRWLOCK_INIT;
    std::wstring path;
    std::int64_t before = 0, size = 0, total = 0, lastBytes = -1;
    int lastPercent = -1;
    std::map<std::wstring, std::int64_t> unpacking; // NSIS's temporary files and their sizes
    HANDLE stop = nullptr, watcher = nullptr;
} g_staging;

std::map<std::wstring, std::int64_t> unpackingFiles()
{
    std::map<std::wstring, std::int64_t> sizes;
    wchar_t temp[MAX_PATH];
    const std::wstring folder(temp, GetTempPathW(MAX_PATH, temp));
    winutil::forEachEntry(folder.substr(0, folder.size() - 1), [&](const WIN32_FIND_DATAW &entry) {
        const std::wstring name = entry.cFileName;
        if (!(entry.dwFileAttributes & FILE_ATTRIBUTE_DIRECTORY) && name.size() > 6 &&
            name.compare(0, 2, L"ns") == 0 &&
            winutil::lower(name.substr(name.size() - 4)) == L".tmp")
            sizes[name] = std::int64_t(entry.nFileSizeHigh) << 32 | entry.nFileSizeLow;
    });
    return sizes;
}

// Under the lock; a message only when something moved.
void reportLocked(std::int64_t bytes, int percent)
{
    if (bytes <= g_staging.lastBytes && percent <= g_staging.lastPercent)
        return;
    g_staging.lastBytes = std::max(bytes, g_staging.lastBytes);
    if (bytes >= 0 && g_staging.total > 0)
        percent = std::max(percent, int(95 * std::min(bytes, g_staging.total) / g_staging.total));
    g_staging.lastPercent = std::max(percent, g_staging.lastPercent);
    post(WM_MYPROGRESS, std::uint64_t(g_staging.lastPercent), 0);
}

void report(std::int64_t bytes, int percent)
{
    AcquireSRWLockExclusive(&g_staging.lock);
    reportLocked(bytes, percent);
    ReleaseSRWLockExclusive(&g_staging.lock);
}

DWORD WINAPI watchStaging(void *)
{
    while (WaitForSingleObject(g_staging.stop, 100) == WAIT_TIMEOUT) {
        AcquireSRWLockExclusive(&g_staging.lock);
        std::int64_t written = 0;
        WIN32_FILE_ATTRIBUTE_DATA data;
        if (!g_staging.path.empty() &&
            GetFileAttributesExW(g_staging.path.c_str(), GetFileExInfoStandard, &data))
            written = std::int64_t(data.nFileSizeHigh) << 32 | std::int64_t(data.nFileSizeLow);
        for (const auto &[name, size] : unpackingFiles()) {
            const auto before = g_staging.unpacking.find(name);
            written = std::max(written,
                               size - (before == g_staging.unpacking.end() ? 0 : before->second));
        }
        if (!g_staging.path.empty())
            reportLocked(g_staging.before + std::min(written, g_staging.size), -1);
        ReleaseSRWLockExclusive(&g_staging.lock);
    }
    return 0;
}

void stopWatching()
{
    if (!g_staging.watcher)
        return;
    SetEvent(g_staging.stop);
    WaitForSingleObject(g_staging.watcher, INFINITE);
    CloseHandle(g_staging.watcher);
    CloseHandle(g_staging.stop);
    g_staging.watcher = g_staging.stop = nullptr;
}

// The front end appends "\Tandemo" to the folder the user picks: a missing parent means the
// pick itself is gone. The proposal is the script's own and is made when installing.
void reportFolder(const std::wstring &folder, std::uint64_t resolve)
{
    const bool missing = !resolve && !winutil::isDirectory(winutil::parentOf(folder));
    post(WM_PATH_INFO, resolve, writable(folder) ? 1 : 0);
    post(WM_DISK_SPACE, std::uint64_t(g_requiredMB), missing ? -1 : freeMB(folder));
}

// The front end's message window title, read as Unicode: no ANSI loss on the way back.
std::wstring frontEndTitle()
{
    wchar_t buffer[4096] = {};
    GetWindowTextW(reinterpret_cast<HWND>(g_frontWindow.load()), buffer, 4096);
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

std::wstring frontEndGone();

// What the user did meanwhile: "ok" (and the bar moves on), "cancel" or "ended".
std::wstring checkFrontEnd(std::int64_t bytes, int percent)
{
    pump([] { return true; }, 0);
    if (g_cancelled) {
        logLine(L"front end closed during the copy");
        waitForFrontEndEnd();
        return L"cancel";
    }
    if (frontEndEnded())
        return frontEndGone();
    report(bytes, percent);
    return L"ok";
}

// The front end is gone without a word: logged with its exit code.
std::wstring frontEndGone()
{
    DWORD code = 0;
    GetExitCodeProcess(reinterpret_cast<HANDLE>(g_frontEnd), &code);
    wchar_t text[16];
    wsprintfW(text, L"0x%08lx", code);
    logLine(L"front end ended without a word (exit code " + std::wstring(text) + L")");
    return L"ended";
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

// The installer's log: the path given, appended to, or a new file of this run's own in %TEMP%,
// never one that was there before.
std::wstring openLog(const std::wstring &given, const std::wstring &kind)
{
    if (g_log != INVALID_HANDLE_VALUE)
        CloseHandle(g_log);
    std::wstring path = given;
    if (path.empty()) {
        wchar_t temp[MAX_PATH];
        SYSTEMTIME now;
        GetLocalTime(&now);
        wchar_t name[96];
        wsprintfW(name, L"Corvalen-%s-%04u%02u%02u-%02u%02u%02u-%lu.log", kind.c_str(), now.wYear,
                  now.wMonth, now.wDay, now.wHour, now.wMinute, now.wSecond, GetCurrentProcessId());
        path = std::wstring(temp, GetTempPathW(MAX_PATH, temp)) + name;
    }
    g_log = CreateFileW(path.c_str(), FILE_APPEND_DATA, FILE_SHARE_READ, nullptr,
                        given.empty() ? CREATE_NEW : OPEN_ALWAYS,
                        FILE_ATTRIBUTE_NORMAL | (given.empty() ? FILE_FLAG_OPEN_REPARSE_POINT : 0),
                        nullptr);
    return g_log == INVALID_HANDLE_VALUE ? std::wstring() : path;
}

UINT_PTR pluginCallback(nsis::PluginMessage message)
{
    if (message != nsis::PluginMessage::Unload)
        return 0;
    stopWatching();
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
    g_frontEndFolder = winutil::parentOf(frontEnd);
    // A front end already running, this user's or another session's, holds the machine-wide
    // guard: a second would end at once.
    if (const HANDLE other = OpenMutexA(SYNCHRONIZE, FALSE, kInstanceMutexName);
        other || GetLastError() == ERROR_ACCESS_DENIED) {
        if (other)
            CloseHandle(other);
        logLine(L"another Corvalen installer window is open, perhaps in another session");
        stack.push(L"busy");
        return;
    }
    if (!createWindow() || !writeIpcFile(ipcFile, g_proposal)) {
        logLine(L"could not prepare the front end's window or " + ipcFile + winutil::lastError());
        stack.push(L"error");
        return;
    }
    const std::string program = ansiPath(frontEnd), ipc = ansiPath(ipcFile);
    if (program.empty() || ipc.empty()) {
        logLine(L"could not start the front end: " + frontEnd +
                L" cannot be named in the system's code page");
        stack.push(L"error");
        return;
    }
    os::Platform &platform = os::platform();
    const std::string commandLine =
        quoted(program) + " " +
        std::to_string(os::windowHandleArgument(reinterpret_cast<os::WindowHandle>(g_window))) +
        " " + (disableChoosePath ? "1" : "0") + " " + (withoutAgreement ? "1" : "0") + " " +
        quoted(narrow(versionNew)) + " " + quoted(narrow(versionOld)) + " " +
        std::to_string(platform.currentProcessId()) + " " + quoted(ipc) + " 1";
    os::ProcessId id = 0;
    g_frontEnd = platform.startProcess(commandLine, id);
    if (!g_frontEnd) {
        logLine(L"could not start the front end " + frontEnd + winutil::lastError());
        stack.push(L"error");
        return;
    }
    logLine(L"front end started: " + frontEnd + L", proposing " + g_proposal);
    stack.push(L"ok");
}

NSIS_PLUGIN_FUNCTION(WaitForChoice)
{
    keepLoaded(extra);
    nsis::Stack stack(stringSize, stackTop);
    pump([] { return !g_chosen.empty() || g_cancelled; }, INFINITE);
    std::wstring status = L"chosen";
    if (g_cancelled) {
        logLine(L"front end: cancelled or refused before installing");
        waitForFrontEndEnd();
        status = L"cancelled";
    } else if (g_chosen.empty()) {
        status = frontEndGone();
    } else {
        logLine(L"front end: install into " + g_chosen);
    }
    stack.push(status == L"chosen" ? g_chosen : std::wstring());
    stack.push(status);
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
    if (percent >= 95)
        stopWatching();
    stack.push(checkFrontEnd(-1, percent));
}

NSIS_PLUGIN_FUNCTION(Total)
{
    keepLoaded(extra);
    nsis::Stack stack(stringSize, stackTop);
    g_staging.total = std::max(0LL, _wtoi64(stack.pop().c_str()));
    if (g_frontEnd && !g_staging.watcher) {
        g_staging.stop = CreateEventW(nullptr, TRUE, FALSE, nullptr);
        g_staging.watcher = CreateThread(nullptr, 0, watchStaging, nullptr, 0, nullptr);
    }
}

NSIS_PLUGIN_FUNCTION(Staging)
{
    keepLoaded(extra);
    nsis::Stack stack(stringSize, stackTop);
    const std::wstring path = stack.pop();
    const std::int64_t before = _wtoi64(stack.pop().c_str()), size = _wtoi64(stack.pop().c_str());
    std::map<std::wstring, std::int64_t> unpacking =
        g_staging.watcher ? unpackingFiles() : std::map<std::wstring, std::int64_t>();
    AcquireSRWLockExclusive(&g_staging.lock);
    g_staging.path = path;
    g_staging.before = before;
    g_staging.size = size;
    g_staging.unpacking.swap(unpacking);
    ReleaseSRWLockExclusive(&g_staging.lock);
    stack.push(g_frontEnd ? checkFrontEnd(before, -1) : L"ok");
}

NSIS_PLUGIN_FUNCTION(Finish)
{
    keepLoaded(extra);
    nsis::Stack stack(stringSize, stackTop);
    if (!g_frontEnd) {
        stack.push(L"closed");
        return;
    }
    // A cancel that came after the point of no return cannot be honoured: the script says so.
    pump([] { return true; }, 0);
    if (g_cancelled || frontEndEnded()) {
        const std::wstring status = g_cancelled ? L"late-cancel" : frontEndGone();
        waitForFrontEndEnd();
        stack.push(status);
        return;
    }
    stopWatching();
    report(-1, 100);
    pump([] { return g_startRequested || g_cancelled; }, INFINITE);
    const bool ended = !g_startRequested && !g_cancelled;
    waitForFrontEndEnd();
    stack.push(g_startRequested ? L"start" : ended ? frontEndGone() : L"closed");
}

NSIS_PLUGIN_FUNCTION(OpenLog)
{
    keepLoaded(extra);
    nsis::Stack stack(stringSize, stackTop);
    const std::wstring given = stack.pop(), kind = stack.pop();
    stack.push(openLog(given, kind));
}

NSIS_PLUGIN_FUNCTION(Log)
{
    keepLoaded(extra);
    nsis::Stack stack(stringSize, stackTop);
    logLine(stack.pop());
}

// Why a staged file could not be written: the disk, or what Windows says of the file.
NSIS_PLUGIN_FUNCTION(WriteError)
{
    keepLoaded(extra);
    nsis::Stack stack(stringSize, stackTop);
    const std::wstring path = stack.pop();
    ULARGE_INTEGER available = {};
    GetDiskFreeSpaceExW((nearestExistingAncestor(path) + L"\\").c_str(), &available, nullptr,
                        nullptr);
    DWORD error = ERROR_DISK_FULL;
    if (available.QuadPart >= 1024 * 1024) {
        const HANDLE file = CreateFileW(winutil::withLongPrefix(path).c_str(), GENERIC_WRITE, 0,
                                        nullptr, OPEN_ALWAYS, 0, nullptr);
        error = file == INVALID_HANDLE_VALUE ? GetLastError() : ERROR_WRITE_FAULT;
        if (file != INVALID_HANDLE_VALUE)
            CloseHandle(file);
    }
    logLine(L"could not write " + path + winutil::errorText(error));
}

// The installer's and the uninstaller's own guard, held until the process ends: one per user,
// in every session of the user's.
NSIS_PLUGIN_FUNCTION(Lock)
{
    keepLoaded(extra);
    nsis::Stack stack(stringSize, stackTop);
    std::wstring sid;
    checks::currentAccount(&sid);
    g_locked = os::platform().createNamedMutex("Global\\CorvalenInstaller-" +
                                               winutil::toUtf8(sid)) == os::MutexResult::Created;
    stack.push(g_locked ? L"ok" : L"busy");
}

NSIS_PLUGIN_FUNCTION(Account)
{
    keepLoaded(extra);
    nsis::Stack stack(stringSize, stackTop);
    std::wstring sid;
    const checks::Account account = checks::currentAccount(&sid);
    logLine(L"account " + sid);
    stack.push(account == checks::Account::System     ? L"system"
               : account == checks::Account::Elevated ? L"elevated"
                                                      : L"user");
}

NSIS_PLUGIN_FUNCTION(InstalledVersion)
{
    keepLoaded(extra);
    nsis::Stack stack(stringSize, stackTop);
    const std::wstring installed = stack.pop(), ours = stack.pop();
    switch (checks::compareInstalled(installed, ours)) {
    case checks::Version::Older:
        stack.push(L"older");
        break;
    case checks::Version::Same:
        stack.push(L"same");
        break;
    case checks::Version::Newer:
        stack.push(L"newer");
        break;
    case checks::Version::Invalid:
        stack.push(L"invalid");
        break;
    }
}

NSIS_PLUGIN_FUNCTION(InspectFolder)
{
    keepLoaded(extra);
    nsis::Stack stack(stringSize, stackTop);
    const std::wstring folder = stack.pop(), registered = stack.pop();
    static const wchar_t *const names[] = {L"absent", L"empty",     L"installed", L"occupied",
                                           L"file",   L"protected", L"nested"};
    stack.push(names[int(checks::inspectFolder(
        folder, registered.empty() ? registered : winutil::fullPath(registered),
        checks::knownFolders()))]);
}

NSIS_PLUGIN_FUNCTION(SameFolder)
{
    keepLoaded(extra);
    nsis::Stack stack(stringSize, stackTop);
    const std::wstring a = stack.pop(), b = stack.pop();
    stack.push(winutil::sameFolder(a, b) ? L"1" : L"0");
}

NSIS_PLUGIN_FUNCTION(Recover)
{
    keepLoaded(extra);
    nsis::Stack stack(stringSize, stackTop);
    // Only the lock's holder may put another run's leftovers right.
    stack.push(g_locked && transaction::recover(logLine) ? L"ok" : L"failed");
}

NSIS_PLUGIN_FUNCTION(Begin)
{
    keepLoaded(extra);
    nsis::Stack stack(stringSize, stackTop);
    const std::wstring folder = stack.pop();
    g_plan = transaction::Plan();
    stack.push(g_locked ? transaction::begin(folder, logLine) : std::wstring());
}

NSIS_PLUGIN_FUNCTION(SetValue)
{
    keepLoaded(extra);
    nsis::Stack stack(stringSize, stackTop);
    const std::wstring key = stack.pop(), name = stack.pop(), text = stack.pop();
    const auto *bytes = reinterpret_cast<const BYTE *>(text.c_str());
    g_plan.values.push_back(
        {key, name, REG_SZ, std::vector<BYTE>(bytes, bytes + (text.size() + 1) * sizeof(wchar_t))});
}

NSIS_PLUGIN_FUNCTION(SetNumber)
{
    keepLoaded(extra);
    nsis::Stack stack(stringSize, stackTop);
    const std::wstring key = stack.pop(), name = stack.pop();
    const DWORD number = DWORD(_wtoi64(stack.pop().c_str()));
    const auto *bytes = reinterpret_cast<const BYTE *>(&number);
    g_plan.values.push_back({key, name, REG_DWORD, std::vector<BYTE>(bytes, bytes + 4)});
}

NSIS_PLUGIN_FUNCTION(RemoveValue)
{
    keepLoaded(extra);
    nsis::Stack stack(stringSize, stackTop);
    const std::wstring key = stack.pop(), name = stack.pop();
    g_plan.values.push_back({key, name, REG_NONE, {}});
}

NSIS_PLUGIN_FUNCTION(RemoveKey)
{
    keepLoaded(extra);
    nsis::Stack stack(stringSize, stackTop);
    g_plan.removedKeys.push_back(stack.pop());
}

NSIS_PLUGIN_FUNCTION(Shortcut)
{
    keepLoaded(extra);
    nsis::Stack stack(stringSize, stackTop);
    const std::wstring link = stack.pop(), target = stack.pop(), folder = stack.pop();
    g_plan.shortcuts.push_back({link, target, folder});
}

NSIS_PLUGIN_FUNCTION(RemoveShortcut)
{
    keepLoaded(extra);
    nsis::Stack stack(stringSize, stackTop);
    g_plan.shortcuts.push_back({stack.pop(), std::wstring(), std::wstring()});
}

NSIS_PLUGIN_FUNCTION(Previous)
{
    keepLoaded(extra);
    nsis::Stack stack(stringSize, stackTop);
    g_plan.previousFolder = stack.pop();
}

NSIS_PLUGIN_FUNCTION(Uninstall)
{
    keepLoaded(extra);
    (void)stringSize, (void)stackTop;
    wchar_t path[MAX_PATH * 2];
    g_plan.uninstall = true;
    g_plan.self = std::wstring(path, GetModuleFileNameW(nullptr, path, DWORD(std::size(path))));
}

NSIS_PLUGIN_FUNCTION(Commit)
{
    keepLoaded(extra);
    nsis::Stack stack(stringSize, stackTop);
    // The user may still give up while the files move; not once the run is committed.
    std::wstring why;
    g_plan.stillWanted = [&why] {
        if (!g_frontEnd)
            return true;
        pump([] { return true; }, 0);
        why = g_cancelled ? L"cancel" : frontEndEnded() ? frontEndGone() : L"";
        return why.empty();
    };
    switch (transaction::commit(g_plan, logLine)) {
    case transaction::Result::Done:
        stack.push(L"done");
        break;
    case transaction::Result::Locked:
        stack.push(L"locked");
        break;
    case transaction::Result::Failed:
        stack.push(L"failed");
        break;
    case transaction::Result::Cancelled:
        if (why == L"cancel")
            waitForFrontEndEnd();
        stack.push(why);
        break;
    }
}

NSIS_PLUGIN_FUNCTION(Abort)
{
    keepLoaded(extra);
    nsis::Stack stack(stringSize, stackTop);
    stack.push(transaction::abort(logLine) ? L"ok" : L"failed");
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
                        logLine(L"ending " + winutil::fromUtf8(name));
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
