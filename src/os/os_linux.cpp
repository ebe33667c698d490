// Linux/X11 stand-ins for the Win32 calls of the front end: the platform itself; its /proc and
// X helpers are in os_linux_proc.cpp and os_linux_x11.cpp.
#include "os/os_linux_p.h"

#include <xcb/xcb.h>

#include <dirent.h>
#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <mutex>

extern char **environ;

namespace os {

using namespace linux_detail;

namespace {

class LinuxPlatform final : public Platform
{
public:
    bool snapshotProcesses(std::vector<ProcessEntry> &out, std::uint32_t &error) override
    {
        DIR *dir = opendir("/proc");
        if (!dir) {
            error = static_cast<std::uint32_t>(errno);
            return false;
        }
        out.clear();
        while (dirent *entry = readdir(dir)) {
            char *end = nullptr;
            const unsigned long pid = std::strtoul(entry->d_name, &end, 10);
            if (end == entry->d_name || *end != '\0' || pid == 0)
                continue;
            const std::string pidDir = std::string("/proc/") + entry->d_name;
            // A snapshot lists live processes only: an unreaped zombie has ended.
            if (hasEnded(pidDir))
                continue;
            std::string name = processExeName(pidDir);
            if (name.empty())
                continue; // gone while we looked
            out.push_back({static_cast<ProcessId>(pid), std::move(name)});
        }
        closedir(dir);
        return true;
    }

    bool terminateProcess(ProcessId id) override
    {
        if (id == 0 || id > static_cast<ProcessId>(INT32_MAX))
            return false;
        return kill(static_cast<pid_t>(id), SIGKILL) == 0;
    }

    ProcessHandle startProcess(const std::string &commandLine, ProcessId &newId) override
    {
        std::vector<std::string> tokens = splitText(commandLine, " \t\n\v\f\r", true);
        if (tokens.empty())
            return 0;
        const std::string program = findProgram(tokens.front());
        if (program.empty())
            return 0;

        std::vector<char *> argv;
        argv.reserve(tokens.size() + 1);
        for (std::string &t : tokens)
            argv.push_back(t.data());
        argv.push_back(nullptr);

        posix_spawn_file_actions_t actions;
        posix_spawn_file_actions_init(&actions);
        for (int fd = 0; fd <= 2; ++fd)
            posix_spawn_file_actions_addopen(&actions, fd, "/dev/null",
                                             fd == 0 ? O_RDONLY : O_WRONLY, 0);
        // Like CreateProcess without handle inheritance: nothing of ours stays open in the
        // child (a pipe held open there would keep its reader waiting for end-of-file).
        posix_spawn_file_actions_addclosefrom_np(&actions, 3);
        pid_t pid = 0;
        const int rc = posix_spawn(&pid, program.c_str(), &actions, nullptr, argv.data(), environ);
        posix_spawn_file_actions_destroy(&actions);
        if (rc != 0)
            return 0;
        newId = static_cast<ProcessId>(pid);
        return static_cast<ProcessHandle>(pid);
    }

    bool hasProcessEnded(ProcessHandle process) override
    {
        if (process <= 0)
            return false; // WaitForSingleObject on a bad handle fails: not "signalled"
        int status = 0;
        const pid_t rc = waitpid(static_cast<pid_t>(process), &status, WNOHANG);
        if (rc == 0)
            return false;
        // Reaped now, or no longer our child: either way it has ended.
        return true;
    }

    ProcessId currentProcessId() override { return static_cast<ProcessId>(getpid()); }

    MutexResult createNamedMutex(const std::string &name) override
    {
        const int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
        if (fd < 0)
            return MutexResult::Failed;
        sockaddr_un address{};
        address.sun_family = AF_UNIX;
        // Abstract namespace: a leading zero byte, then the name, cut to fit.
        const std::size_t length = std::min(name.size(), sizeof(address.sun_path) - 1);
        std::memcpy(address.sun_path + 1, name.data(), length);
        const socklen_t size = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + 1 + length);
        if (bind(fd, reinterpret_cast<sockaddr *>(&address), size) == 0)
            return MutexResult::Created; // kept open: the kernel releases it at process end
        const int error = errno;
        close(fd);
        return error == EADDRINUSE ? MutexResult::AlreadyExists : MutexResult::Failed;
    }

    std::string environmentVariable(const std::string &name) override
    {
        // Like GetEnvironmentVariableA: a value that does not fit the buffer is not copied.
        const char *value = std::getenv(name.c_str());
        if (!value || std::strlen(value) > kTextLimit)
            return std::string();
        return value;
    }

    void debugOutput(const std::string &text) override
    {
        std::fprintf(stderr, "%s\n", text.c_str());
        std::fflush(stderr);
    }

    std::optional<long> setProcessDpiAwareness(int) override { return std::nullopt; }

    // X has no per-monitor DPI call, so the Qt side falls back to the system DPI anyway; one
    // primary entry keeps that path the same as on Windows.
    std::vector<MonitorInfo> enumerateMonitors() override
    {
        if (!XConnection::instance().get())
            return {};
        return {MonitorInfo{1, true, 1}};
    }

    std::optional<std::uint32_t> dpiForMonitor(MonitorHandle) override { return std::nullopt; }

    std::optional<int> systemDpi() override
    {
        xcb_connection_t *c = XConnection::instance().get();
        if (!c)
            return std::nullopt;
        const xcb_screen_t *screen = xcb_setup_roots_iterator(xcb_get_setup(c)).data;
        if (!screen)
            return std::nullopt;
        const std::string resources =
            windowProperty(c, screen->root, XCB_ATOM_RESOURCE_MANAGER, XCB_ATOM_STRING, 1 << 20);
        return xftDpiFromResources(resources);
    }

    bool postMessage(WindowHandle window, std::uint32_t message, std::uint64_t wParam,
                     std::int64_t lParam) override
    {
        // X reads 0 and 1 as PointerWindow and InputFocus: never a real destination.
        if (window <= 1 || window > 0xffffffffu)
            return false;
        XConnection &x = XConnection::instance();
        xcb_connection_t *c = x.get();
        if (!c)
            return false;
        xcb_client_message_event_t event{};
        event.response_type = XCB_CLIENT_MESSAGE;
        event.format = 32;
        event.window = static_cast<xcb_window_t>(window);
        event.type = x.postedMessageAtom();
        const std::uint64_t l = static_cast<std::uint64_t>(lParam);
        event.data.data32[0] = message;
        event.data.data32[1] = static_cast<uint32_t>(wParam);
        event.data.data32[2] = static_cast<uint32_t>(wParam >> 32);
        event.data.data32[3] = static_cast<uint32_t>(l);
        event.data.data32[4] = static_cast<uint32_t>(l >> 32);
        std::lock_guard<std::mutex> lock(m_xMutex);
        xcb_void_cookie_t cookie = xcb_send_event_checked(
            c, 0, event.window, XCB_EVENT_MASK_NO_EVENT, reinterpret_cast<const char *>(&event));
        std::unique_ptr<xcb_generic_error_t, decltype(&std::free)> error(
            xcb_request_check(c, cookie), &std::free);
        return !error;
    }

    void hideWindow(WindowHandle window) override
    {
        xcb_connection_t *c = XConnection::instance().get();
        if (!c || window <= 1 || window > 0xffffffffu)
            return;
        std::lock_guard<std::mutex> lock(m_xMutex);
        xcb_unmap_window(c, static_cast<xcb_window_t>(window));
        xcb_flush(c);
    }

    std::string windowText(WindowHandle window) override
    {
        XConnection &x = XConnection::instance();
        xcb_connection_t *c = x.get();
        if (!c || window <= 1 || window > 0xffffffffu)
            return std::string();
        std::lock_guard<std::mutex> lock(m_xMutex);
        static const xcb_atom_t netWmName = x.internAtom("_NET_WM_NAME");
        static const xcb_atom_t utf8 = x.internAtom("UTF8_STRING");
        std::string title =
            windowProperty(c, static_cast<xcb_window_t>(window), netWmName, utf8, kTextLimit);
        if (title.empty())
            title = windowProperty(c, static_cast<xcb_window_t>(window), XCB_ATOM_WM_NAME,
                                   XCB_ATOM_STRING, kTextLimit);
        // The Windows buffer is zero-terminated: the text ends at the first zero byte.
        title.resize(std::strlen(title.c_str()));
        return title;
    }

    std::optional<NativeMessage> decodeNativeMessage(const void *record, std::size_t size) override
    {
        const std::uint32_t atom = XConnection::instance().postedMessageAtom();
        if (atom == XCB_ATOM_NONE)
            return std::nullopt;
        return decodeClientMessage(record, size, atom);
    }

    // "Xft.dpi:\t144" in the resource database text; 96 when absent or unparsable.
    static int xftDpiFromResources(const std::string &resources)
    {
        for (const std::string &line : splitText(resources, "\n", false)) {
            const std::string key = "Xft.dpi:";
            if (line.compare(0, key.size(), key) != 0)
                continue;
            const char *value = line.c_str() + key.size();
            char *end = nullptr;
            const double dpi = std::strtod(value, &end);
            if (end != value && std::isfinite(dpi) && dpi > 0 && dpi < 10000)
                return static_cast<int>(std::lround(dpi));
        }
        return 96;
    }

private:
    std::mutex m_xMutex;
};

} // namespace

Platform &realPlatform()
{
    static LinuxPlatform platform;
    return platform;
}

} // namespace os
