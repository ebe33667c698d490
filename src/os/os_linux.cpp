// Linux/X11 stand-ins for the Win32 calls of the front end.
#include "os/os.h"

#include <xcb/xcb.h>

#include <dirent.h>
#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <sys/socket.h>
#include <sys/stat.h>
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

const std::size_t kNativeMessageRecordSize = sizeof(xcb_client_message_event_t);

namespace {

constexpr std::size_t kTextLimit = 4095; // a 4096-byte buffer with its terminating zero
constexpr char kPostedMessageAtom[] = "_CORVALEN_POSTED_MESSAGE";

std::string baseName(const std::string &path)
{
    const auto slash = path.rfind('/');
    return slash == std::string::npos ? path : path.substr(slash + 1);
}

// Plain reads rather than streams: iostreams would pull libstdc++'s locale machinery into
// every process for a handful of /proc files.
std::string readWholeFile(const std::string &path)
{
    std::string text;
    const int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0)
        return text;
    char buffer[4096];
    for (;;) {
        const ssize_t n = read(fd, buffer, sizeof(buffer));
        if (n > 0)
            text.append(buffer, static_cast<std::size_t>(n));
        else if (n == 0 || errno != EINTR)
            break;
    }
    close(fd);
    return text;
}

// Fields between separators; with skipEmpty, runs of separators count as one.
std::vector<std::string> splitText(const std::string &text, const char *separators, bool skipEmpty)
{
    std::vector<std::string> fields;
    std::size_t start = 0;
    for (;;) {
        const std::size_t end = text.find_first_of(separators, start);
        std::string field = text.substr(start, end == std::string::npos ? end : end - start);
        if (!skipEmpty || !field.empty())
            fields.push_back(std::move(field));
        if (end == std::string::npos)
            return fields;
        start = end + 1;
    }
}

// The name a process runs under: the executable's file name, else argv[0] (a renamed copy run
// through a symlink or an interpreter), else comm, which the kernel cuts at 15 bytes.
std::string processExeName(const std::string &pidDir)
{
    char target[4096];
    const ssize_t n = readlink((pidDir + "/exe").c_str(), target, sizeof(target) - 1);
    if (n > 0) {
        target[n] = '\0';
        std::string path(target);
        // A binary replaced on disk keeps running under "<path> (deleted)".
        const std::string deleted = " (deleted)";
        if (path.size() > deleted.size() &&
            path.compare(path.size() - deleted.size(), deleted.size(), deleted) == 0)
            path.resize(path.size() - deleted.size());
        return baseName(path);
    }
    const std::string cmdline = readWholeFile(pidDir + "/cmdline");
    if (!cmdline.empty()) {
        const std::string argv0(cmdline.c_str());
        if (!argv0.empty())
            return baseName(argv0);
    }
    std::string comm = readWholeFile(pidDir + "/comm");
    while (!comm.empty() && comm.back() == '\n')
        comm.pop_back();
    return comm;
}

// State Z (zombie) or X (dead), or gone: the state follows the ")" that closes the name.
bool hasEnded(const std::string &pidDir)
{
    const std::string stat = readWholeFile(pidDir + "/stat");
    const auto close = stat.rfind(')');
    if (close == std::string::npos || close + 2 >= stat.size())
        return true;
    const char state = stat[close + 2];
    return state == 'Z' || state == 'X';
}

std::string ownDirectory()
{
    char target[4096];
    const ssize_t n = readlink("/proc/self/exe", target, sizeof(target) - 1);
    if (n <= 0)
        return std::string();
    target[n] = '\0';
    std::string path(target);
    return path.substr(0, path.rfind('/'));
}

bool isExecutableFile(const std::string &path)
{
    struct stat st;
    return stat(path.c_str(), &st) == 0 && S_ISREG(st.st_mode) && access(path.c_str(), X_OK) == 0;
}

// CreateProcessA's search for the first token: the program's own directory, the current
// directory, then PATH. A token with a slash is taken as it is.
std::string findProgram(const std::string &name)
{
    if (name.find('/') != std::string::npos)
        return isExecutableFile(name) ? name : std::string();
    std::vector<std::string> dirs{ownDirectory(), "."};
    if (const char *path = std::getenv("PATH")) {
        for (const std::string &dir : splitText(path, ":", false))
            dirs.push_back(dir.empty() ? "." : dir);
    }
    for (const std::string &dir : dirs) {
        if (dir.empty())
            continue;
        std::string candidate = dir;
        candidate += '/';
        candidate += name;
        if (isExecutableFile(candidate))
            return candidate;
    }
    return std::string();
}

// The layer's own X connection, opened on first use and kept for the life of the process.
class XConnection
{
public:
    static XConnection &instance()
    {
        static XConnection connection;
        return connection;
    }

    xcb_connection_t *get()
    {
        std::call_once(m_once, [this] { open(); });
        return m_connection;
    }

    std::uint32_t postedMessageAtom()
    {
        get();
        return m_atom;
    }

private:
    void open()
    {
        if (!std::getenv("DISPLAY"))
            return;
        xcb_connection_t *c = xcb_connect(nullptr, nullptr);
        if (xcb_connection_has_error(c)) {
            xcb_disconnect(c);
            return;
        }
        m_connection = c;
        m_atom = internAtom(kPostedMessageAtom);
    }

public:
    std::uint32_t internAtom(const char *name)
    {
        if (!m_connection)
            return XCB_ATOM_NONE;
        xcb_intern_atom_cookie_t cookie =
            xcb_intern_atom(m_connection, 0, static_cast<uint16_t>(std::strlen(name)), name);
        std::unique_ptr<xcb_intern_atom_reply_t, decltype(&std::free)> reply(
            xcb_intern_atom_reply(m_connection, cookie, nullptr), &std::free);
        return reply ? reply->atom : static_cast<std::uint32_t>(XCB_ATOM_NONE);
    }

private:
    std::once_flag m_once;
    xcb_connection_t *m_connection = nullptr;
    std::uint32_t m_atom = XCB_ATOM_NONE;
};

// One property of a window as bytes; empty when missing or the window is gone.
std::string windowProperty(xcb_connection_t *c, xcb_window_t window, xcb_atom_t property,
                           xcb_atom_t type, std::size_t limit)
{
    const uint32_t longs = static_cast<uint32_t>((limit + 3) / 4);
    xcb_get_property_cookie_t cookie = xcb_get_property(c, 0, window, property, type, 0, longs);
    std::unique_ptr<xcb_get_property_reply_t, decltype(&std::free)> reply(
        xcb_get_property_reply(c, cookie, nullptr), &std::free);
    if (!reply || reply->format != 8)
        return std::string();
    const int length = xcb_get_property_value_length(reply.get());
    std::string value(static_cast<const char *>(xcb_get_property_value(reply.get())),
                      static_cast<std::size_t>(length));
    if (value.size() > limit)
        value.resize(limit);
    return value;
}

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

std::optional<NativeMessage> decodeClientMessage(const void *record, std::size_t size,
                                                 std::uint32_t postedMessageAtom)
{
    if (!record || size < sizeof(xcb_client_message_event_t))
        return std::nullopt;
    xcb_client_message_event_t event;
    std::memcpy(&event, record, sizeof(event));
    // The high bit marks an event that came through SendEvent, which ours always do.
    if ((event.response_type & 0x7f) != XCB_CLIENT_MESSAGE || event.format != 32 ||
        event.type != postedMessageAtom || postedMessageAtom == XCB_ATOM_NONE)
        return std::nullopt;
    NativeMessage message;
    message.window = event.window;
    message.message = event.data.data32[0];
    message.wParam =
        std::uint64_t(event.data.data32[1]) | (std::uint64_t(event.data.data32[2]) << 32);
    message.lParam = static_cast<std::int64_t>(std::uint64_t(event.data.data32[3]) |
                                               (std::uint64_t(event.data.data32[4]) << 32));
    message.privateCarrier = true;
    return message;
}

bool isProcessAlive(ProcessId id)
{
    const auto pid = static_cast<pid_t>(id);
    return pid > 0 && (kill(pid, 0) == 0 || errno == EPERM) &&
           !hasEnded("/proc/" + std::to_string(pid));
}

Platform &realPlatform()
{
    static LinuxPlatform platform;
    return platform;
}

} // namespace os
