// The operating-system layer: every platform call the front end makes goes through here.
// No Qt in this layer; strings are 8-bit (the "ANSI" code page on Windows, UTF-8 on Linux)
// unless a comment says otherwise.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace os {

using ProcessId = std::uint32_t;
// HWND on Windows, the X window id on X11. 0 is the null handle.
using WindowHandle = std::uintptr_t;
// A window handle as the front end reads it from its command line: base 10, signed 32 bits.
// A window handle has 32 significant bits, sign-extended on 64-bit Windows.
inline std::int32_t windowHandleArgument(WindowHandle window)
{
    return static_cast<std::int32_t>(static_cast<std::uint32_t>(window));
}
// HANDLE on Windows; on Linux the child's pid. 0 is the null handle.
using ProcessHandle = std::intptr_t;
// HMONITOR on Windows.
using MonitorHandle = std::uintptr_t;

struct ProcessEntry
{
    ProcessId id = 0;
    std::string exeName; // file name without directory, UTF-8
};

enum class MutexResult
{
    Created,       // we own the name now; the handle stays open until the process ends
    AlreadyExists, // another process holds it; our extra handle was closed again
    Failed         // no handle at all
};

struct MonitorInfo
{
    MonitorHandle handle = 0;
    bool infoOk = false;     // GetMonitorInfoW succeeded
    std::uint32_t flags = 0; // MONITORINFO::dwFlags (1 = primary)
};

// One message as posted between the two processes: the window it was posted to, its
// number and both parameters at full width.
struct NativeMessage
{
    WindowHandle window = 0;
    std::uint32_t message = 0;
    std::uint64_t wParam = 0;
    std::int64_t lParam = 0;
    // The record exists only to carry a posted message (an X11 ClientMessage of our atom):
    // the toolkit has no use for it, whatever its number. A Windows MSG is never one.
    bool privateCarrier = false;
};

// Every call that the program's decisions depend on, behind one interface so that tests can
// put a fake in its place (setPlatform). The real one is the Win32 or the Linux/X11 side.
class Platform
{
public:
    virtual ~Platform() = default;

    // Process list (Toolhelp snapshot / /proc). False on failure, with the error code
    // (GetLastError / errno) in `error`.
    virtual bool snapshotProcesses(std::vector<ProcessEntry> &out, std::uint32_t &error) = 0;
    // OpenProcess(PROCESS_TERMINATE) + TerminateProcess(0). False when the process could not be
    // opened for termination; the outcome of the termination itself is not reported.
    virtual bool terminateProcess(ProcessId id) = 0;
    // CreateProcessA of `commandLine` with CREATE_NO_WINDOW; the first token is looked up in
    // the program's own directory, then the current directory, then PATH. Returns 0 on failure
    // and leaves `newId` untouched.
    virtual ProcessHandle startProcess(const std::string &commandLine, ProcessId &newId) = 0;
    // True only when a zero-timeout wait on the process reports it as signalled (ended).
    virtual bool hasProcessEnded(ProcessHandle process) = 0;
    virtual ProcessId currentProcessId() = 0;

    // Machine-wide named mutex ("Global\\{...}"), never released while the process lives.
    virtual MutexResult createNamedMutex(const std::string &name) = 0;

    // GetEnvironmentVariableA into a 4096-byte buffer: empty when unset or too long.
    virtual std::string environmentVariable(const std::string &name) = 0;
    // OutputDebugStringA.
    virtual void debugOutput(const std::string &text) = 0;

    // Shcore's SetProcessDpiAwareness: nullopt when the library or the entry is missing,
    // otherwise the HRESULT.
    virtual std::optional<long> setProcessDpiAwareness(int value) = 0;
    // EnumDisplayMonitors over the whole desktop, each with its GetMonitorInfoW answer.
    virtual std::vector<MonitorInfo> enumerateMonitors() = 0;
    // Shcore's GetDpiForMonitor(MDT_EFFECTIVE_DPI): nullopt when the library or the entry is
    // missing; otherwise the horizontal DPI, 96 when the call itself failed.
    virtual std::optional<std::uint32_t> dpiForMonitor(MonitorHandle monitor) = 0;
    // GetDeviceCaps(LOGPIXELSX) of the screen DC: nullopt when there is no device context.
    virtual std::optional<int> systemDpi() = 0;

    // PostMessageA. False when nothing was posted.
    virtual bool postMessage(WindowHandle window, std::uint32_t message, std::uint64_t wParam,
                             std::int64_t lParam) = 0;
    // ShowWindow(SW_HIDE).
    virtual void hideWindow(WindowHandle window) = 0;
    // GetWindowTextA into a zero-filled 4096-byte buffer: at most 4095 bytes, empty when the
    // window is gone or has no title.
    virtual std::string windowText(WindowHandle window) = 0;
    // Decodes the record that Qt's native-event hook hands over ("xcb_generic_event_t" on X11,
    // "windows_generic_MSG" on Windows) into a posted message; nullopt for anything that is
    // not one of ours. On X11 this compares with the atom _CORVALEN_POSTED_MESSAGE interned on
    // the layer's own connection.
    virtual std::optional<NativeMessage> decodeNativeMessage(const void *record,
                                                             std::size_t size) = 0;
};

// The platform in use: the real one unless a test replaced it.
Platform &platform();
// Replaces the platform (tests); nullptr restores the real one. Not owned.
void setPlatform(Platform *replacement);
// The real platform of this build.
Platform &realPlatform();

// Whether a process with this id runs now. Not behind Platform: only the helper service's
// stand-in asks it, and nothing the front end decides depends on it.
bool isProcessAlive(ProcessId id);

// Number of readable bytes behind the record Qt's native-event hook hands over: an
// xcb_generic_event_t (32) on X11, a MSG on Windows.
extern const std::size_t kNativeMessageRecordSize;

#ifndef _WIN32
// Pure decoder of an X11 ClientMessage record (tests, fuzzing): nullopt unless it is one of
// our posted messages, carried by the atom `postedMessageAtom`.
std::optional<NativeMessage> decodeClientMessage(const void *record, std::size_t size,
                                                 std::uint32_t postedMessageAtom);
#endif

} // namespace os
