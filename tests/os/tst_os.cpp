// The os layer on real processes and on another process's windows: an X server on Linux,
// Wine's window system for the Windows build. The other process is this program again, or a
// copy, started with --peer: it appends what it sees to its FILE.
//   --peer FILE window TITLE...  a shown top-level window: "hwnd N", then one
//       "msg wParam lParam window" line per posted message, and "hidden" once it is hidden
//   --peer FILE mutex NAME       "created" or "exists", then holds it
// The title takes the rest of the line: the Linux side splits command lines at blanks. A peer
// never ends by itself before 30 s; the tests kill it.
#include "os/os.h"

#include <gtest/gtest.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <deque>
#include <filesystem>
#include <fstream>
#include <functional>
#include <thread>

#ifdef _WIN32
#include <windows.h>
#else
#include <poll.h>
#include <unistd.h>
#include <xcb/xcb.h>
#endif

namespace fs = std::filesystem;
using namespace std::chrono_literals;

namespace {

os::Platform &real = os::realPlatform();

#ifdef _WIN32
constexpr bool kWindows = true;
const std::string kExe = ".exe";
// Command lines are in the ANSI code page, which has no Chinese here.
const std::string kTitle = "D:\\Apps\\Tandemo setup";
// PostMessage(0) posts to the calling thread: not a bad window there.
const os::WindowHandle kNoWindows[] = {0x7ffff0};
const fs::path kBin = fs::path(_pgmptr).parent_path();
const auto setEnv = [](const char *n, const char *v) { SetEnvironmentVariableA(n, v); };
#else
constexpr bool kWindows = false;
const std::string kExe;
const std::string kTitle = "D:\\Apps\\Tandemo 安装";
const os::WindowHandle kNoWindows[] = {0, 1}; // PointerWindow and InputFocus to X
const fs::path kBin = fs::read_symlink("/proc/self/exe").parent_path();
const auto setEnv = [](const char *n, const char *v) { v ? setenv(n, v, 1) : unsetenv(n); };
#endif

// Other processes and the window system answer in their own time.
bool within(std::chrono::milliseconds limit, const std::function<bool()> &done)
{
    const auto end = std::chrono::steady_clock::now() + limit;
    while (!done() && std::chrono::steady_clock::now() < end)
        std::this_thread::sleep_for(20ms);
    return done();
}

struct TempDir
{
    inline static int count = 0;
    const fs::path path =
        fs::temp_directory_path() /
        ("corvalen-os-" + std::to_string(real.currentProcessId()) + "-" + std::to_string(++count));
    std::error_code error;
    TempDir() { fs::create_directories(path); }
    ~TempDir() { fs::remove_all(path, error); }
};

// Started through the layer; killed and waited for at the end.
struct Process
{
    os::ProcessId id = 0;
    const os::ProcessHandle handle;
    explicit Process(const std::string &commandLine) : handle(real.startProcess(commandLine, id)) {}
    bool ended() const
    {
        return within(10s, [this] { return real.hasProcessEnded(handle); });
    }
    ~Process()
    {
        if (handle && !real.hasProcessEnded(handle) && real.terminateProcess(id))
            ended();
    }
};

// A peer (this program, or a copy), talking through its own file.
struct Peer
{
    TempDir dir;
    const std::string file = (dir.path / "peer.txt").string();
    Process process;
    explicit Peer(const std::string &arguments,
                  const std::string &program = (kBin / ("os_tests" + kExe)).string())
        : process(program + " --peer " + file + " " + arguments)
    {}
    // The rest of the first whole line that starts with `start`, once the peer wrote it.
    std::optional<std::string> said(const std::string &start) const
    {
        std::optional<std::string> rest;
        within(10s, [&] {
            std::ifstream in(file);
            for (std::string line; !rest && std::getline(in, line);)
                if (!in.eof() && line.rfind(start, 0) == 0)
                    rest = line.substr(start.size());
            return rest.has_value();
        });
        return rest;
    }
    os::WindowHandle window() const { return std::stoull(said("hwnd ").value_or("0")); }
};

const std::string kLock =
    "Global\\{corvalen-os-test-" + std::to_string(real.currentProcessId()) + "}";

std::string nameOf(os::ProcessId id)
{
    std::vector<os::ProcessEntry> all;
    std::uint32_t error = 0;
    EXPECT_TRUE(real.snapshotProcesses(all, error));
    const auto it = std::find_if(all.begin(), all.end(), [id](auto &e) { return e.id == id; });
    return it == all.end() ? "" : it->exeName;
}

} // namespace

// Sleepers as decoys where the search must not look first; the right program, a peer, answers
// through its file. Each is listed under its file's name; terminating one by its id ends only
// that one, and once ended it is no longer listed.
TEST(Processes, StartSearchesOwnThenCurrentDirectoryThenPathAndTerminateEndsOnlyThatOne)
{
    TempDir cwd, onPath;
    const auto copy = [](const std::string &from, const fs::path &to) {
        fs::copy_file(kBin / from, to.string() + kExe);
    };
    copy("Tandemo.exe", cwd.path / "os_tests");
    copy("os_tests" + kExe, cwd.path / "in_cwd");
    copy("Tandemo.exe", onPath.path / "in_cwd");
    copy("os_tests" + kExe, onPath.path / "on_path");
    const std::string oldPath = std::getenv("PATH") ? std::getenv("PATH") : "";
    setEnv("PATH", (onPath.path.string() + (kWindows ? ";" : ":") + oldPath).c_str());
    const fs::path before = fs::current_path();
    fs::current_path(cwd.path);
    const std::string names[] = {"os_tests", "in_cwd", "on_path", "in_cwd"};
    std::deque<Peer> peers;
    for (const std::string &name : names)
        peers.emplace_back("mutex " + kLock + std::to_string(peers.size()), name);
    os::ProcessId untouched = 4242;
    EXPECT_EQ(real.startProcess("no_such_program_here 1", untouched), 0);
    fs::current_path(before);
    setEnv("PATH", oldPath.c_str());
    EXPECT_EQ(untouched, 4242u);
    // Fully started first: Wine's console host can hang on a process killed while starting.
    for (std::size_t i = 0; i < peers.size(); ++i) {
        EXPECT_EQ(peers[i].said("created"), "") << names[i];
        EXPECT_EQ(nameOf(peers[i].process.id), names[i] + kExe);
    }
    EXPECT_EQ(nameOf(real.currentProcessId()), "os_tests" + kExe);
    EXPECT_TRUE(real.terminateProcess(peers[1].process.id));
    // Not waited for yet: a zombie has ended and is no longer listed.
    EXPECT_TRUE(within(5s, [&] { return nameOf(peers[1].process.id).empty(); }));
    EXPECT_TRUE(peers[1].process.ended());
    EXPECT_FALSE(real.hasProcessEnded(peers[3].process.handle));
    EXPECT_EQ(nameOf(peers[3].process.id), "in_cwd" + kExe);
    for (os::ProcessId missing : {0u, 0x7ffffff0u})
        EXPECT_FALSE(real.terminateProcess(missing)) << missing;
}

TEST(Environment, ValueOrEmptyWhenUnsetOrTooLongForTheBuffer)
{
    const std::string fits(4095, 'x');
    for (const std::string &value : {fits, fits + "x", std::string()}) { // "": unset
        setEnv("CORVALEN_OS_TEST", value.empty() ? nullptr : value.c_str());
        EXPECT_EQ(real.environmentVariable("CORVALEN_OS_TEST"), value == fits ? fits : "");
    }
}

TEST(Dpi, MonitorDpiOnlyWhereShcoreIs)
{
    EXPECT_EQ(real.setProcessDpiAwareness(2).has_value(), kWindows);
    int primaries = 0;
    for (const os::MonitorInfo &m : real.enumerateMonitors()) {
        primaries += m.infoOk && (m.flags & 1);
        EXPECT_EQ(real.dpiForMonitor(m.handle).has_value(), kWindows);
        EXPECT_GE(real.dpiForMonitor(m.handle).value_or(96), 48u);
    }
    EXPECT_EQ(primaries, 1);
    // The system setting: the prefix's under Wine.
    if (const char *expected = std::getenv("CORVALEN_EXPECT_DPI")) {
        EXPECT_EQ(real.systemDpi(), std::atoi(expected));
    }
}

#ifdef _WIN32
// A library named without a path comes from the system's folder only: one beside the program
// (the plug-in, found by its full path) is not, Shcore is.
TEST(Libraries, ByNameFromTheSystemFolderOnly)
{
    wchar_t program[MAX_PATH];
    const std::wstring path(program, GetModuleFileNameW(nullptr, program, MAX_PATH));
    EXPECT_EQ(LoadLibraryW(L"corvalen.dll"), nullptr);
    EXPECT_NE(LoadLibraryW((path.substr(0, path.rfind(L'\\') + 1) + L"corvalen.dll").c_str()),
              nullptr);
    EXPECT_NE(LoadLibraryW(L"Shcore.dll"), nullptr);
}
#endif

// One peer window for all: its title has the Chinese text first, then more than the Win32
// buffer takes.
TEST(Windows, AnotherProcessWindowGetsMessagesIsReadAndHidden)
{
    const std::string title = kTitle + " " + std::string(5000, 'a');
    os::WindowHandle window = 0;
    {
        Peer peer("window " + title);
        window = peer.window();
        ASSERT_NE(window, 0u);
        ASSERT_TRUE(real.postMessage(window, 1124, 0x100000005ull, -2));
        EXPECT_EQ(peer.said("1124 4294967301 -2 " + std::to_string(window)), "");
        EXPECT_EQ(real.windowText(window), title.substr(0, 4095));
        real.hideWindow(window);
        EXPECT_EQ(peer.said("hidden"), "");
        EXPECT_TRUE(real.terminateProcess(peer.process.id));
        ASSERT_TRUE(peer.process.ended());
    }
    // The window went with its process; the window system may learn of that a moment later.
    EXPECT_TRUE(within(2s, [&] { return !real.postMessage(window, 1127, 0, 0); }));
    EXPECT_EQ(real.windowText(window), "");
    for (os::WindowHandle bad : kNoWindows)
        EXPECT_FALSE(real.postMessage(bad, 1127, 0, 0)) << bad;
    // A short record is never taken for a message.
    const std::vector<char> zeros(os::kNativeMessageRecordSize);
    EXPECT_FALSE(real.decodeNativeMessage(zeros.data(), zeros.size() - 1));
    EXPECT_FALSE(real.decodeNativeMessage(nullptr, zeros.size()));
}

#ifndef _WIN32

TEST(Processes, StartedProcessInheritsNoDescriptor)
{
    int fds[2];
    ASSERT_EQ(pipe(fds), 0); // inheritable, as a starting shell's pipe would be
    Process sleeper("Tandemo.exe 30");
    close(fds[1]);
    // With no copy of the write end left in the child, the reader sees end-of-file at once.
    pollfd reader{fds[0], POLLIN, 0};
    EXPECT_EQ(poll(&reader, 1, 2000), 1);
    close(fds[0]);
    EXPECT_NE(sleeper.handle, 0);
}

TEST(Dpi, SystemDpiFromTheResourceDatabase)
{
    xcb_connection_t *c = xcb_connect(nullptr, nullptr);
    const xcb_window_t root = xcb_setup_roots_iterator(xcb_get_setup(c)).data->root;
    for (const std::string resources : {"Xft.antialias:\t1\nXft.dpi:\t144\n", ""}) {
        xcb_change_property(c, XCB_PROP_MODE_REPLACE, root, XCB_ATOM_RESOURCE_MANAGER,
                            XCB_ATOM_STRING, 8, resources.size(), resources.data());
        std::free(xcb_get_input_focus_reply(c, xcb_get_input_focus(c), nullptr));
        EXPECT_EQ(real.systemDpi(), resources.empty() ? 96 : 144);
    }
    xcb_delete_property(c, root, XCB_ATOM_RESOURCE_MANAGER);
    xcb_disconnect(c);
}

#endif

namespace {

const char *g_file = nullptr;

void say(const std::string &line)
{
    if (FILE *f = std::fopen(g_file, "a")) {
        std::fprintf(f, "%s\n", line.c_str());
        std::fclose(f);
    }
}

// Decoded the way the front end's native-event hook decodes what Qt hands it.
void report(const void *record)
{
    if (const auto m = os::realPlatform().decodeNativeMessage(record, os::kNativeMessageRecordSize))
        say(std::to_string(m->message) + " " + std::to_string(m->wParam) + " " +
            std::to_string(m->lParam) + " " + std::to_string(m->window));
}

#ifdef _WIN32
LRESULT CALLBACK windowProc(HWND hwnd, UINT message, WPARAM wParam, LPARAM lParam)
{
    if (message == WM_SHOWWINDOW && !wParam)
        say("hidden");
    return DefWindowProcA(hwnd, message, wParam, lParam);
}

int runWindow(const std::string &title)
{
    const WNDCLASSA wc{0,       windowProc, 0,       0,       GetModuleHandleA(nullptr),
                       nullptr, nullptr,    nullptr, nullptr, "CorvalenOsPeer"};
    RegisterClassA(&wc);
    HWND hwnd = CreateWindowA(wc.lpszClassName, title.c_str(), WS_OVERLAPPEDWINDOW, 0, 0, 100, 100,
                              nullptr, nullptr, wc.hInstance, nullptr);
    ShowWindow(hwnd, SW_SHOW);
    say("hwnd " + std::to_string(reinterpret_cast<std::uintptr_t>(hwnd)));
    SetTimer(nullptr, 0, 30000, nullptr);
    MSG msg;
    while (GetMessageA(&msg, nullptr, 0, 0) > 0 && msg.message != WM_TIMER) {
        if (msg.message >= WM_USER)
            report(&msg);
        DispatchMessageA(&msg);
    }
    return 1;
}
#else
int runWindow(const std::string &title)
{
    alarm(30);
    xcb_connection_t *c = xcb_connect(nullptr, nullptr);
    // Replies are not freed: the peer only ends by a signal.
    const auto atom = [c](const char *name) {
        return xcb_intern_atom_reply(c, xcb_intern_atom(c, 0, std::strlen(name), name), nullptr)
            ->atom;
    };
    const xcb_screen_t *screen = xcb_setup_roots_iterator(xcb_get_setup(c)).data;
    const xcb_window_t window = xcb_generate_id(c);
    const std::uint32_t events = XCB_EVENT_MASK_STRUCTURE_NOTIFY;
    xcb_create_window(c, XCB_COPY_FROM_PARENT, window, screen->root, 0, 0, 50, 50, 0,
                      XCB_WINDOW_CLASS_INPUT_OUTPUT, screen->root_visual, XCB_CW_EVENT_MASK,
                      &events);
    xcb_change_property(c, XCB_PROP_MODE_REPLACE, window, atom("_NET_WM_NAME"), atom("UTF8_STRING"),
                        8, title.size(), title.data());
    xcb_map_window(c, window);
    // A round trip: the window is there and mapped before the test hears of it.
    xcb_get_input_focus_reply(c, xcb_get_input_focus(c), nullptr);
    say("hwnd " + std::to_string(window));
    while (xcb_generic_event_t *event = xcb_wait_for_event(c)) {
        if ((event->response_type & 0x7f) == XCB_UNMAP_NOTIFY)
            say("hidden");
        report(event);
        std::free(event);
    }
    return 1;
}
#endif

} // namespace

// argv: FILE window TITLE... | FILE mutex NAME
int peer(int argc, char **argv)
{
    g_file = argv[1];
    if (std::strcmp(argv[2], "mutex") == 0 && argc == 4) {
        const char *answers[] = {"created", "exists", "failed"}; // in MutexResult's order
        say(answers[static_cast<int>(os::realPlatform().createNamedMutex(argv[3]))]);
        std::this_thread::sleep_for(std::chrono::seconds(60));
        return 0;
    }
    std::string title;
    for (int i = 3; i < argc; ++i)
        title.append(i > 3 ? " " : "").append(argv[i]);
    return runWindow(title);
}

int main(int argc, char **argv)
{
    if (argc > 3 && std::strcmp(argv[1], "--peer") == 0)
        return peer(argc - 1, argv + 1);
    testing::InitGoogleTest(&argc, argv);
    return RUN_ALL_TESTS();
}
