// The os layer on real processes and a real X server.
#include "os/os.h"

#include <gtest/gtest.h>

#include <xcb/xcb.h>

#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <memory>
#include <poll.h>
#include <string>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>

namespace fs = std::filesystem;
using namespace std::chrono_literals;

namespace {

fs::path binDir()
{
    return fs::read_symlink("/proc/self/exe").parent_path();
}

// Runs a copy of the sleeper under `name`, the way a renamed executable would run.
class NamedProcess
{
public:
    NamedProcess(const fs::path &dir, const std::string &name)
    {
        const fs::path copy = dir / name;
        fs::copy_file(binDir() / "os_sleeper", copy, fs::copy_options::overwrite_existing);
        fs::permissions(copy, fs::perms::owner_all);
        m_pid = fork();
        if (m_pid == 0) {
            execl(copy.c_str(), name.c_str(), "30", static_cast<char *>(nullptr));
            _exit(127);
        }
    }
    ~NamedProcess() { stop(); }
    NamedProcess(const NamedProcess &) = delete;
    NamedProcess &operator=(const NamedProcess &) = delete;

    os::ProcessId pid() const { return static_cast<os::ProcessId>(m_pid); }
    void stop()
    {
        if (m_pid > 0) {
            kill(m_pid, SIGKILL);
            waitpid(m_pid, nullptr, 0);
            m_pid = -1;
        }
    }

private:
    pid_t m_pid = -1;
};

std::vector<os::ProcessEntry> snapshot()
{
    std::vector<os::ProcessEntry> entries;
    std::uint32_t error = 0;
    EXPECT_TRUE(os::realPlatform().snapshotProcesses(entries, error));
    return entries;
}

std::string nameOf(const std::vector<os::ProcessEntry> &entries, os::ProcessId pid)
{
    for (const auto &e : entries)
        if (e.id == pid)
            return e.exeName;
    return std::string();
}

class TempDir
{
public:
    TempDir()
    {
        char pattern[] = "/tmp/corvalen-os-XXXXXX";
        m_path = mkdtemp(pattern);
    }
    ~TempDir() { fs::remove_all(m_path); }
    const fs::path &path() const { return m_path; }

private:
    fs::path m_path;
};

// Waits (bounded) until the child has exited, polling the way the watchdog does.
bool endsWithin(os::ProcessHandle handle, int polls)
{
    for (int i = 0; i < polls; ++i) {
        if (os::realPlatform().hasProcessEnded(handle))
            return true;
        std::this_thread::sleep_for(50ms);
    }
    return false;
}

} // namespace

TEST(Processes, SnapshotNamesRenamedCopies)
{
    TempDir dir;
    NamedProcess first(dir.path(), "Tandemo.exe");
    fs::create_directory(dir.path() / "b");
    NamedProcess second(dir.path() / "b", "Tandemo.exe");
    NamedProcess bare(dir.path(), "Tandemo");
    std::this_thread::sleep_for(100ms); // let exec happen
    const auto entries = snapshot();
    EXPECT_EQ(nameOf(entries, first.pid()), "Tandemo.exe");
    EXPECT_EQ(nameOf(entries, second.pid()), "Tandemo.exe");
    EXPECT_EQ(nameOf(entries, bare.pid()), "Tandemo");
    EXPECT_EQ(nameOf(entries, os::realPlatform().currentProcessId()), "os_tests");
}

TEST(Processes, TerminateEndsOnlyThatProcess)
{
    TempDir dir;
    NamedProcess a(dir.path(), "Skeinpad.exe");
    NamedProcess b(dir.path(), "Lumaslate.exe");
    std::this_thread::sleep_for(100ms);
    EXPECT_TRUE(os::realPlatform().terminateProcess(a.pid()));
    // Not reaped: a zombie has ended and is no longer listed.
    std::string name = "Skeinpad.exe";
    for (int i = 0; i < 100 && !name.empty(); ++i) {
        std::this_thread::sleep_for(20ms);
        name = nameOf(snapshot(), a.pid());
    }
    EXPECT_EQ(name, "");
    EXPECT_EQ(nameOf(snapshot(), b.pid()), "Lumaslate.exe");
}

TEST(Processes, TerminateOfMissingProcessFails)
{
    EXPECT_FALSE(os::realPlatform().terminateProcess(0));
    EXPECT_FALSE(os::realPlatform().terminateProcess(0x7ffffff0u));
}

TEST(Processes, StartFindsBareNameInOwnDirectoryFromElsewhere)
{
    TempDir dir;
    const fs::path before = fs::current_path();
    fs::current_path(dir.path());
    os::ProcessId id = 0;
    const os::ProcessHandle handle = os::realPlatform().startProcess("os_sleeper 5", id);
    fs::current_path(before);
    ASSERT_NE(handle, 0);
    EXPECT_NE(id, 0u);
    EXPECT_FALSE(os::realPlatform().hasProcessEnded(handle));
    const auto entries = snapshot();
    EXPECT_EQ(nameOf(entries, id), "os_sleeper");
    kill(static_cast<pid_t>(id), SIGKILL);
    EXPECT_TRUE(endsWithin(handle, 100));
}

TEST(Processes, StartedProcessInheritsNoDescriptor)
{
    int fds[2];
    ASSERT_EQ(pipe(fds), 0); // inheritable, as a starting shell's pipe would be
    os::ProcessId id = 0;
    const os::ProcessHandle handle = os::realPlatform().startProcess("os_sleeper 5", id);
    ASSERT_NE(handle, 0);
    close(fds[1]);
    // With no copy of the write end left in the child, the reader sees end-of-file at once.
    pollfd reader{fds[0], POLLIN, 0};
    EXPECT_EQ(poll(&reader, 1, 2000), 1);
    close(fds[0]);
    kill(static_cast<pid_t>(id), SIGKILL);
    EXPECT_TRUE(endsWithin(handle, 100));
}

TEST(Processes, StartSearchesCurrentDirectoryThenPath)
{
    TempDir cwd;
    TempDir onPath;
    fs::copy_file(binDir() / "os_sleeper", cwd.path() / "probe_in_cwd");
    fs::copy_file(binDir() / "os_sleeper", onPath.path() / "probe_on_path");
    const std::string oldPath = std::getenv("PATH") ? std::getenv("PATH") : "";
    setenv("PATH", (onPath.path().string() + ":" + oldPath).c_str(), 1);
    const fs::path before = fs::current_path();
    fs::current_path(cwd.path());
    os::ProcessId a = 0, b = 0, c = 12345;
    const os::ProcessHandle ha = os::realPlatform().startProcess("probe_in_cwd 0", a);
    const os::ProcessHandle hb = os::realPlatform().startProcess("probe_on_path 0", b);
    const os::ProcessHandle hc = os::realPlatform().startProcess("no_such_program_here 0", c);
    fs::current_path(before);
    setenv("PATH", oldPath.c_str(), 1);
    EXPECT_NE(ha, 0);
    EXPECT_NE(hb, 0);
    EXPECT_EQ(hc, 0);
    EXPECT_EQ(c, 12345u); // untouched on failure
    EXPECT_TRUE(endsWithin(ha, 100));
    EXPECT_TRUE(endsWithin(hb, 100));
}

TEST(Processes, OwnIdIsPid)
{
    EXPECT_EQ(os::realPlatform().currentProcessId(), static_cast<os::ProcessId>(getpid()));
}

TEST(InstanceLock, SeenByAnotherProcessAndReleasedOnKill)
{
    const std::string name = "Global\\{corvalen-os-test-" + std::to_string(getpid()) + "}";
    int ready[2];
    ASSERT_EQ(pipe(ready), 0);
    const pid_t holder = fork();
    if (holder == 0) {
        const bool created = os::realPlatform().createNamedMutex(name) == os::MutexResult::Created;
        const char answer = created ? 'y' : 'n';
        (void)!write(ready[1], &answer, 1);
        pause();
        _exit(0);
    }
    char answer = 0;
    ASSERT_EQ(read(ready[0], &answer, 1), 1);
    EXPECT_EQ(answer, 'y');
    EXPECT_EQ(os::realPlatform().createNamedMutex(name), os::MutexResult::AlreadyExists);
    kill(holder, SIGKILL);
    waitpid(holder, nullptr, 0);
    EXPECT_EQ(os::realPlatform().createNamedMutex(name), os::MutexResult::Created);
    EXPECT_EQ(os::realPlatform().createNamedMutex(name), os::MutexResult::AlreadyExists);
    close(ready[0]);
    close(ready[1]);
}

TEST(Environment, ValueIsCutAtTheBufferSize)
{
    setenv("CORVALEN_OS_TEST", std::string(5000, 'x').c_str(), 1);
    EXPECT_EQ(os::realPlatform().environmentVariable("CORVALEN_OS_TEST").size(), 4095u);
    setenv("CORVALEN_OS_TEST", "C:\\Users\\x\\AppData\\Roaming", 1);
    EXPECT_EQ(os::realPlatform().environmentVariable("CORVALEN_OS_TEST"),
              "C:\\Users\\x\\AppData\\Roaming");
    unsetenv("CORVALEN_OS_TEST");
    EXPECT_EQ(os::realPlatform().environmentVariable("CORVALEN_OS_TEST"), "");
}

TEST(Dpi, NoShcoreHere)
{
    EXPECT_FALSE(os::realPlatform().setProcessDpiAwareness(2).has_value());
    EXPECT_FALSE(os::realPlatform().dpiForMonitor(1).has_value());
}

// A record as the X server delivers it.
static xcb_client_message_event_t clientMessage(std::uint8_t responseType, std::uint8_t format,
                                                std::uint32_t type)
{
    xcb_client_message_event_t e{};
    e.response_type = responseType;
    e.format = format;
    e.window = 0x400007;
    e.type = type;
    e.data.data32[0] = 1124;
    e.data.data32[1] = 5;
    e.data.data32[2] = 1;
    e.data.data32[3] = 0xfffffffe;
    e.data.data32[4] = 0xffffffff;
    return e;
}

TEST(Decode, AcceptsOnlyOurClientMessages)
{
    const std::uint32_t atom = 321;
    auto ok = clientMessage(XCB_CLIENT_MESSAGE, 32, atom);
    auto decoded = os::decodeClientMessage(&ok, sizeof(ok), atom);
    ASSERT_TRUE(decoded.has_value());
    EXPECT_EQ(decoded->window, 0x400007u);
    EXPECT_EQ(decoded->message, 1124u);
    EXPECT_EQ(decoded->wParam, 0x100000005ull);
    EXPECT_EQ(decoded->lParam, -2);

    auto sent = clientMessage(XCB_CLIENT_MESSAGE | 0x80, 32, atom); // came through SendEvent
    EXPECT_TRUE(os::decodeClientMessage(&sent, sizeof(sent), atom).has_value());

    struct Case
    {
        const char *what;
        xcb_client_message_event_t record;
        std::size_t size;
    };
    const Case rejected[] = {
        {"other atom", clientMessage(XCB_CLIENT_MESSAGE, 32, atom + 1), sizeof(ok)},
        {"format 8", clientMessage(XCB_CLIENT_MESSAGE, 8, atom), sizeof(ok)},
        {"format 16", clientMessage(XCB_CLIENT_MESSAGE, 16, atom), sizeof(ok)},
        {"not a client message", clientMessage(XCB_PROPERTY_NOTIFY, 32, atom), sizeof(ok)},
        {"short record", clientMessage(XCB_CLIENT_MESSAGE, 32, atom), sizeof(ok) - 1},
    };
    for (const Case &c : rejected)
        EXPECT_FALSE(os::decodeClientMessage(&c.record, c.size, atom).has_value()) << c.what;
    EXPECT_FALSE(os::decodeClientMessage(nullptr, sizeof(ok), atom).has_value());
    EXPECT_FALSE(os::decodeClientMessage(&ok, sizeof(ok), XCB_ATOM_NONE).has_value());
}

// ---- X11: a peer process on the same display ----

class X11 : public ::testing::Test
{
protected:
    void SetUp() override
    {
        if (!std::getenv("DISPLAY"))
            GTEST_SKIP() << "no X display";
    }

    // Starts the peer and returns its window id.
    os::WindowHandle startPeer(const std::string &arguments)
    {
        m_peer = popen((binDir() / "os_peer").string().append(" ").append(arguments).c_str(), "r");
        char line[64] = {};
        if (!m_peer || !std::fgets(line, sizeof(line), m_peer))
            return 0;
        return std::strtoul(line, nullptr, 10);
    }
    std::string peerLine()
    {
        char line[256] = {};
        if (!std::fgets(line, sizeof(line), m_peer))
            return std::string();
        std::string s(line);
        if (!s.empty() && s.back() == '\n')
            s.pop_back();
        return s;
    }
    int stopPeer(os::WindowHandle window)
    {
        os::realPlatform().postMessage(window, 1, 0, 0);
        char line[256];
        while (std::fgets(line, sizeof(line), m_peer)) {
        } // drain, so the peer's last line does not meet a closed pipe
        const int status = pclose(m_peer);
        m_peer = nullptr;
        return status;
    }
    void TearDown() override
    {
        if (m_peer)
            pclose(m_peer);
    }

    FILE *m_peer = nullptr;
};

TEST_F(X11, PostedMessageArrivesWithFullWidthParameters)
{
    const os::WindowHandle window = startPeer("");
    ASSERT_GT(window, 1u);
    ASSERT_TRUE(os::realPlatform().postMessage(window, 1124, 0x100000005ull, -2));
    EXPECT_EQ(peerLine(), "1124 4294967301 -2 " + std::to_string(window));
    ASSERT_TRUE(os::realPlatform().postMessage(window, 1224, 4194318, 0));
    EXPECT_EQ(peerLine(), "1224 4194318 0 " + std::to_string(window));
    EXPECT_EQ(stopPeer(window), 0);
    // The window is gone with its process: BadWindow.
    EXPECT_FALSE(os::realPlatform().postMessage(window, 1127, 0, 0));
}

TEST_F(X11, PostToPointerAndFocusWindowsIsRefused)
{
    EXPECT_FALSE(os::realPlatform().postMessage(0, 1127, 0, 0));
    EXPECT_FALSE(os::realPlatform().postMessage(1, 1127, 0, 0));
}

TEST_F(X11, TitleOfAnotherProcessWindow)
{
    const std::string title = "D:\\Apps\\Tandemo 安装";
    const os::WindowHandle window = startPeer("--title '" + title + "'");
    ASSERT_GT(window, 1u);
    EXPECT_EQ(os::realPlatform().windowText(window), title);
    EXPECT_EQ(stopPeer(window), 0);
    EXPECT_EQ(os::realPlatform().windowText(window), "");
}

TEST_F(X11, LongTitleIsCut)
{
    const os::WindowHandle window = startPeer("--title " + std::string(5000, 'a'));
    ASSERT_GT(window, 1u);
    EXPECT_EQ(os::realPlatform().windowText(window).size(), 4095u);
    EXPECT_EQ(stopPeer(window), 0);
}

TEST_F(X11, HideUnmapsAnotherProcessWindow)
{
    const os::WindowHandle window = startPeer("--map");
    ASSERT_GT(window, 1u);
    os::realPlatform().hideWindow(window);
    EXPECT_EQ(peerLine(), "unmapped");
    EXPECT_EQ(stopPeer(window), 0);
}

TEST_F(X11, SystemDpiFromResourceDatabase)
{
    xcb_connection_t *c = xcb_connect(nullptr, nullptr);
    ASSERT_FALSE(xcb_connection_has_error(c));
    const xcb_window_t root = xcb_setup_roots_iterator(xcb_get_setup(c)).data->root;
    const std::string resources = "Xft.antialias:\t1\nXft.dpi:\t144\n";
    xcb_change_property(c, XCB_PROP_MODE_REPLACE, root, XCB_ATOM_RESOURCE_MANAGER, XCB_ATOM_STRING,
                        8, resources.size(), resources.data());
    free(xcb_get_input_focus_reply(c, xcb_get_input_focus(c), nullptr));
    EXPECT_EQ(os::realPlatform().systemDpi(), 144);
    xcb_delete_property(c, root, XCB_ATOM_RESOURCE_MANAGER);
    free(xcb_get_input_focus_reply(c, xcb_get_input_focus(c), nullptr));
    EXPECT_EQ(os::realPlatform().systemDpi(), 96);
    xcb_disconnect(c);
}
