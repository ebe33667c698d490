// The Win32 side of the platform layer.
#include "os/os.h"

#include <windows.h>

#include <tlhelp32.h>

#include <cstring>
#include <vector>

namespace os {

const std::size_t kNativeMessageRecordSize = sizeof(MSG);

namespace {

constexpr DWORD kTextBuffer = 4096;

std::string toUtf8(const wchar_t *text)
{
    const int n = WideCharToMultiByte(CP_UTF8, 0, text, -1, nullptr, 0, nullptr, nullptr);
    if (n <= 1)
        return std::string();
    std::string out(static_cast<std::size_t>(n - 1), '\0');
    WideCharToMultiByte(CP_UTF8, 0, text, -1, out.data(), n, nullptr, nullptr);
    return out;
}

// Shcore is optional (absent before Windows 8.1): looked up once, never freed.
HMODULE shcore()
{
    static HMODULE module = LoadLibraryW(L"Shcore.dll");
    return module;
}

template <typename Function> Function shcoreFunction(const char *name)
{
    HMODULE module = shcore();
    return module
               ? reinterpret_cast<Function>(reinterpret_cast<void *>(GetProcAddress(module, name)))
               : nullptr;
}

using SetProcessDpiAwarenessFn = HRESULT(WINAPI *)(int);
using GetDpiForMonitorFn = HRESULT(WINAPI *)(HMONITOR, int, UINT *, UINT *);

BOOL CALLBACK collectMonitor(HMONITOR monitor, HDC, LPRECT, LPARAM data)
{
    auto *out = reinterpret_cast<std::vector<MonitorInfo> *>(data);
    MONITORINFO info;
    std::memset(&info, 0, sizeof(info));
    info.cbSize = sizeof(MONITORINFO); // 40: the plain record, not MONITORINFOEX
    MonitorInfo entry;
    entry.handle = reinterpret_cast<MonitorHandle>(monitor);
    entry.infoOk = GetMonitorInfoW(monitor, &info) != 0;
    entry.flags = info.dwFlags;
    out->push_back(entry);
    return TRUE;
}

HWND toHwnd(WindowHandle window)
{
    return reinterpret_cast<HWND>(window);
}

class WinPlatform final : public Platform
{
public:
    // Made before anything else of this layer runs: from now on a library named without a path
    // (Shcore.dll, say) comes from the system's folder only, whatever lies beside the program.
    // Looked up: Windows 7 without its 2011 update lacks it.
    WinPlatform()
    {
        using SetDefaultDllDirectoriesFn = BOOL(WINAPI *)(DWORD);
        if (const auto restrict =
                reinterpret_cast<SetDefaultDllDirectoriesFn>(reinterpret_cast<void *>(
                    GetProcAddress(GetModuleHandleW(L"kernel32.dll"), "SetDefaultDllDirectories"))))
            restrict(LOAD_LIBRARY_SEARCH_SYSTEM32);
    }

    bool snapshotProcesses(std::vector<ProcessEntry> &out, std::uint32_t &error) override
    {
        HANDLE snapshot = CreateToolhelp32Snapshot(TH32CS_SNAPPROCESS, 0);
        if (snapshot == INVALID_HANDLE_VALUE) {
            error = GetLastError();
            return false;
        }
        out.clear();
        PROCESSENTRY32W entry;
        std::memset(&entry, 0, sizeof(entry));
        entry.dwSize = sizeof(PROCESSENTRY32W);
        for (BOOL ok = Process32FirstW(snapshot, &entry); ok; ok = Process32NextW(snapshot, &entry))
            out.push_back({entry.th32ProcessID, toUtf8(entry.szExeFile)});
        CloseHandle(snapshot);
        return true;
    }

    bool terminateProcess(ProcessId id) override
    {
        HANDLE process = OpenProcess(PROCESS_TERMINATE, FALSE, id);
        if (!process)
            return false;
        TerminateProcess(process, 0);
        CloseHandle(process);
        return true;
    }

    ProcessHandle startProcess(const std::string &commandLine, ProcessId &newId) override
    {
        std::vector<char> buffer(commandLine.begin(), commandLine.end());
        buffer.push_back('\0'); // CreateProcessA may write into the command line
        STARTUPINFOA startup;
        std::memset(&startup, 0, sizeof(startup));
        startup.cb = sizeof(startup);
        PROCESS_INFORMATION info;
        std::memset(&info, 0, sizeof(info));
        if (!CreateProcessA(nullptr, buffer.data(), nullptr, nullptr, FALSE, CREATE_NO_WINDOW,
                            nullptr, nullptr, &startup, &info))
            return 0;
        newId = info.dwProcessId;
        CloseHandle(info.hThread);
        return reinterpret_cast<ProcessHandle>(info.hProcess);
    }

    bool hasProcessEnded(ProcessHandle process) override
    {
        return WaitForSingleObject(reinterpret_cast<HANDLE>(process), 0) == WAIT_OBJECT_0;
    }

    ProcessId currentProcessId() override { return GetCurrentProcessId(); }

    MutexResult createNamedMutex(const std::string &name) override
    {
        HANDLE mutex = CreateMutexA(nullptr, FALSE, name.c_str());
        if (!mutex)
            return MutexResult::Failed;
        if (GetLastError() == ERROR_ALREADY_EXISTS) {
            CloseHandle(mutex);
            return MutexResult::AlreadyExists;
        }
        return MutexResult::Created; // left open: the system drops it when the process ends
    }

    std::string environmentVariable(const std::string &name) override
    {
        char buffer[kTextBuffer];
        std::memset(buffer, 0, sizeof(buffer));
        // Too long a value is not copied at all: the buffer stays empty.
        GetEnvironmentVariableA(name.c_str(), buffer, kTextBuffer);
        return std::string(buffer);
    }

    void debugOutput(const std::string &text) override { OutputDebugStringA(text.c_str()); }

    std::optional<long> setProcessDpiAwareness(int value) override
    {
        const auto function = shcoreFunction<SetProcessDpiAwarenessFn>("SetProcessDpiAwareness");
        if (!function)
            return std::nullopt;
        return static_cast<long>(function(value));
    }

    std::vector<MonitorInfo> enumerateMonitors() override
    {
        std::vector<MonitorInfo> monitors;
        EnumDisplayMonitors(nullptr, nullptr, collectMonitor, reinterpret_cast<LPARAM>(&monitors));
        return monitors;
    }

    std::optional<std::uint32_t> dpiForMonitor(MonitorHandle monitor) override
    {
        const auto function = shcoreFunction<GetDpiForMonitorFn>("GetDpiForMonitor");
        if (!function)
            return std::nullopt;
        UINT dpiX = 96;
        UINT dpiY = 96;
        function(reinterpret_cast<HMONITOR>(monitor), 0 /* MDT_EFFECTIVE_DPI */, &dpiX, &dpiY);
        return dpiX;
    }

    std::optional<int> systemDpi() override
    {
        HDC dc = GetDC(nullptr);
        if (!dc)
            return std::nullopt;
        const int dpi = GetDeviceCaps(dc, LOGPIXELSX);
        ReleaseDC(nullptr, dc);
        return dpi;
    }

    bool postMessage(WindowHandle window, std::uint32_t message, std::uint64_t wParam,
                     std::int64_t lParam) override
    {
        return PostMessageA(toHwnd(window), message, static_cast<WPARAM>(wParam),
                            static_cast<LPARAM>(lParam)) != 0;
    }

    void hideWindow(WindowHandle window) override { ShowWindow(toHwnd(window), SW_HIDE); }

    std::string windowText(WindowHandle window) override
    {
        char buffer[kTextBuffer];
        std::memset(buffer, 0, sizeof(buffer));
        GetWindowTextA(toHwnd(window), buffer, kTextBuffer);
        return std::string(buffer);
    }

    std::optional<NativeMessage> decodeNativeMessage(const void *record, std::size_t size) override
    {
        if (!record || size < sizeof(MSG))
            return std::nullopt;
        MSG msg;
        std::memcpy(&msg, record, sizeof(msg));
        NativeMessage out;
        out.window = reinterpret_cast<WindowHandle>(msg.hwnd);
        out.message = msg.message;
        out.wParam = static_cast<std::uint64_t>(msg.wParam);
        out.lParam = static_cast<std::int64_t>(msg.lParam);
        return out;
    }
};

} // namespace

bool isProcessAlive(ProcessId id)
{
    HANDLE process = OpenProcess(SYNCHRONIZE, FALSE, id);
    if (!process)
        return GetLastError() == ERROR_ACCESS_DENIED; // there, but not ours to wait on
    const bool running = WaitForSingleObject(process, 0) == WAIT_TIMEOUT;
    CloseHandle(process);
    return running;
}

Platform &realPlatform()
{
    static WinPlatform platform;
    return platform;
}

} // namespace os
