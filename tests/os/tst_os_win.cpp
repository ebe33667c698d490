// The os layer's Win32 side on real Windows semantics (run under Wine here).
#include "os/os.h"

#include <gtest/gtest.h>

#include <windows.h>

#include <chrono>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <string>
#include <thread>

namespace fs = std::filesystem;
using namespace std::chrono_literals;

namespace {

fs::path binDir()
{
    char path[MAX_PATH] = {};
    GetModuleFileNameA(nullptr, path, MAX_PATH);
    return fs::path(path).parent_path();
}

fs::path tempDir()
{
    char path[MAX_PATH] = {};
    GetTempPathA(MAX_PATH, path);
    const fs::path dir = fs::path(path) / ("corvalen-os-" + std::to_string(GetCurrentProcessId()) +
                                           "-" + std::to_string(GetTickCount()));
    fs::create_directories(dir);
    return dir;
}

std::string nameOf(os::ProcessId pid)
{
    std::vector<os::ProcessEntry> entries;
    std::uint32_t error = 0;
    EXPECT_TRUE(os::realPlatform().snapshotProcesses(entries, error));
    for (const auto &e : entries)
        if (e.id == pid)
            return e.exeName;
    return std::string();
}

bool endsWithin(os::ProcessHandle handle, int polls)
{
    for (int i = 0; i < polls; ++i) {
        if (os::realPlatform().hasProcessEnded(handle))
            return true;
        std::this_thread::sleep_for(50ms);
    }
    return false;
}

// Lines the peer wrote so far.
std::vector<std::string> lines(const fs::path &file)
{
    std::vector<std::string> out;
    std::ifstream in(file);
    for (std::string line; std::getline(in, line);)
        out.push_back(line);
    return out;
}

bool waitForLine(const fs::path &file, const std::string &line, int polls = 100)
{
    for (int i = 0; i < polls; ++i) {
        for (const std::string &l : lines(file))
            if (l == line)
                return true;
        std::this_thread::sleep_for(50ms);
    }
    return false;
}

struct Peer
{
    os::ProcessHandle handle = 0;
    os::ProcessId id = 0;
    HWND hwnd = nullptr;
    fs::path file;

    Peer(const fs::path &dir, const std::string &arguments)
    {
        file = dir / ("peer-" + std::to_string(GetTickCount()) + ".txt");
        handle = os::realPlatform().startProcess(
            (binDir() / "os_peer.exe").string() + " " + file.string() + " " + arguments, id);
        for (int i = 0; i < 200 && handle; ++i) {
            for (const std::string &l : lines(file))
                if (l.rfind("hwnd ", 0) == 0)
                    hwnd = reinterpret_cast<HWND>(std::stoull(l.substr(5)));
            if (hwnd || !lines(file).empty())
                break;
            std::this_thread::sleep_for(50ms);
        }
    }
    ~Peer()
    {
        if (handle) {
            os::realPlatform().terminateProcess(id);
            endsWithin(handle, 40);
            CloseHandle(reinterpret_cast<HANDLE>(handle));
        }
    }
};

} // namespace

TEST(Processes, SnapshotHasOwnName)
{
    EXPECT_EQ(nameOf(os::realPlatform().currentProcessId()), "os_tests.exe");
}

TEST(Processes, RenamedCopyFoundAndTerminated)
{
    const fs::path dir = tempDir();
    fs::copy_file(binDir() / "os_sleeper.exe", dir / "Tandemo.exe");
    os::ProcessId id = 0;
    const os::ProcessHandle handle =
        os::realPlatform().startProcess((dir / "Tandemo.exe").string() + " 30", id);
    ASSERT_NE(handle, 0);
    EXPECT_EQ(nameOf(id), "Tandemo.exe");
    EXPECT_FALSE(os::realPlatform().hasProcessEnded(handle));
    EXPECT_TRUE(os::realPlatform().terminateProcess(id));
    EXPECT_TRUE(endsWithin(handle, 100));
    EXPECT_EQ(nameOf(id), "");
    CloseHandle(reinterpret_cast<HANDLE>(handle));
}

TEST(Processes, TerminateOfMissingProcessFails)
{
    EXPECT_FALSE(os::realPlatform().terminateProcess(0x7ffffff0u));
}

TEST(Processes, BareNameFoundInOwnDirectoryFromElsewhere)
{
    const fs::path dir = tempDir();
    char before[MAX_PATH] = {};
    GetCurrentDirectoryA(MAX_PATH, before);
    SetCurrentDirectoryA(dir.string().c_str());
    os::ProcessId id = 0;
    const os::ProcessHandle handle = os::realPlatform().startProcess("os_sleeper.exe 1", id);
    os::ProcessId untouched = 4242;
    const os::ProcessHandle missing =
        os::realPlatform().startProcess("no_such_program_here.exe 1", untouched);
    SetCurrentDirectoryA(before);
    ASSERT_NE(handle, 0);
    EXPECT_NE(id, 0u);
    EXPECT_EQ(missing, 0);
    EXPECT_EQ(untouched, 4242u);
    EXPECT_TRUE(endsWithin(handle, 200)); // has ended after the child exits by itself
    CloseHandle(reinterpret_cast<HANDLE>(handle));
}

TEST(InstanceLock, SeenByAnotherProcessAndReleasedOnTerminate)
{
    const std::string name =
        "Global\\{corvalen-os-test-" + std::to_string(GetCurrentProcessId()) + "}";
    const fs::path dir = tempDir();
    {
        Peer holder(dir, "mutex " + name);
        ASSERT_TRUE(waitForLine(holder.file, "created"));
        EXPECT_EQ(os::realPlatform().createNamedMutex(name), os::MutexResult::AlreadyExists);
    } // terminated: the system drops its handle
    EXPECT_EQ(os::realPlatform().createNamedMutex(name), os::MutexResult::Created);
    Peer second(dir, "mutex " + name);
    EXPECT_TRUE(waitForLine(second.file, "exists"));
}

TEST(Environment, ValueOrEmpty)
{
    SetEnvironmentVariableA("CORVALEN_OS_TEST", "C:\\Users\\x\\AppData\\Roaming");
    EXPECT_EQ(os::realPlatform().environmentVariable("CORVALEN_OS_TEST"),
              "C:\\Users\\x\\AppData\\Roaming");
    // Too long for the buffer: nothing is copied.
    SetEnvironmentVariableA("CORVALEN_OS_TEST", std::string(5000, 'x').c_str());
    EXPECT_EQ(os::realPlatform().environmentVariable("CORVALEN_OS_TEST"), "");
    SetEnvironmentVariableA("CORVALEN_OS_TEST", nullptr);
    EXPECT_EQ(os::realPlatform().environmentVariable("CORVALEN_OS_TEST"), "");
}

TEST(Dpi, WhatTheProgramReliesOn)
{
    // Shcore is there; the first call's answer depends on how the process was started.
    EXPECT_TRUE(os::realPlatform().setProcessDpiAwareness(2).has_value());
    const auto monitors = os::realPlatform().enumerateMonitors();
    for (const os::MonitorInfo &m : monitors) {
        const auto dpi = os::realPlatform().dpiForMonitor(m.handle);
        ASSERT_TRUE(dpi.has_value());
        EXPECT_GE(*dpi, 48u);
    }
    const auto system = os::realPlatform().systemDpi();
    ASSERT_TRUE(system.has_value());
    const char *expected = std::getenv("CORVALEN_EXPECT_DPI");
    if (expected) {
        EXPECT_EQ(*system, std::atoi(expected));
    }
}

TEST(Messages, PostedAcrossProcessesAndDecodedFromMsg)
{
    const fs::path dir = tempDir();
    Peer peer(dir, "window");
    ASSERT_NE(peer.hwnd, nullptr);
    const auto window = reinterpret_cast<os::WindowHandle>(peer.hwnd);
    ASSERT_TRUE(os::realPlatform().postMessage(window, 1124, 0x100000005ull, -2));
    EXPECT_TRUE(waitForLine(peer.file, "1124 4294967301 -2 " + std::to_string(window)));
    ASSERT_TRUE(os::realPlatform().postMessage(window, WM_USER + 1, 0, 0));
    EXPECT_TRUE(endsWithin(peer.handle, 100));
    EXPECT_FALSE(os::realPlatform().postMessage(window, 1127, 0, 0)); // window gone
    EXPECT_FALSE(os::realPlatform().postMessage(0x7ffff0, 1127, 0, 0));
}

TEST(Messages, TitleOfAnotherProcessWindow)
{
    const fs::path dir = tempDir();
    Peer peer(dir, "window --title D:\\Apps\\Tandemo");
    ASSERT_NE(peer.hwnd, nullptr);
    EXPECT_EQ(os::realPlatform().windowText(reinterpret_cast<os::WindowHandle>(peer.hwnd)),
              "D:\\Apps\\Tandemo");
    SetWindowTextA(peer.hwnd, "E:\\x");
    EXPECT_EQ(os::realPlatform().windowText(reinterpret_cast<os::WindowHandle>(peer.hwnd)),
              "E:\\x");
}

TEST(Messages, HideAnotherProcessWindow)
{
    const fs::path dir = tempDir();
    Peer peer(dir, "window --show");
    ASSERT_NE(peer.hwnd, nullptr);
    ASSERT_TRUE(IsWindowVisible(peer.hwnd));
    os::realPlatform().hideWindow(reinterpret_cast<os::WindowHandle>(peer.hwnd));
    bool hidden = false;
    for (int i = 0; i < 100 && !hidden; ++i) {
        hidden = !IsWindowVisible(peer.hwnd);
        std::this_thread::sleep_for(20ms);
    }
    EXPECT_TRUE(hidden);
}

TEST(Messages, DecodeRejectsShortRecords)
{
    MSG msg{};
    msg.message = 1129;
    EXPECT_TRUE(os::realPlatform().decodeNativeMessage(&msg, sizeof(msg)).has_value());
    EXPECT_FALSE(os::realPlatform().decodeNativeMessage(&msg, sizeof(msg) - 1).has_value());
    EXPECT_FALSE(os::realPlatform().decodeNativeMessage(nullptr, sizeof(msg)).has_value());
}
