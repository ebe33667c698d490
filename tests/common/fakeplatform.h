// A scriptable os::Platform for unit tests: answers come from public fields, every call is
// recorded. Install it with FakePlatformScope so the real platform comes back afterwards.
#pragma once

#include <algorithm>
#include <atomic>
#include <chrono>
#include <map>
#include <string>
#include <thread>
#include <vector>

#include "app/global.h"
#include "os/os.h"

// An int that pool threads read while the test writes it; copied like a plain value so that
// the fake stays assignable.
struct SharedInt
{
    std::atomic<int> value{0};
    SharedInt() = default;
    SharedInt(const SharedInt &other) : value(other.value.load()) {}
    SharedInt &operator=(const SharedInt &other)
    {
        value = other.value.load();
        return *this;
    }
};

class FakePlatform : public os::Platform
{
public:
    // Processes
    bool snapshotOk = true;
    std::uint32_t snapshotError = 5;
    std::vector<os::ProcessEntry> processes;
    SharedInt snapshotDelayMs; // a slow machine's snapshot (taken on pool threads)
    SharedInt snapshotCalls;
    SharedInt snapshotsDone;
    std::vector<os::ProcessId> unopenable;     // terminateProcess answers false for these
    std::vector<os::ProcessId> terminated;     // in call order
    os::ProcessHandle nextProcessHandle = 100; // 0 makes startProcess fail
    os::ProcessId nextProcessId = 4000;
    std::vector<std::string> started; // command lines, in call order
    std::vector<os::ProcessHandle> endedProcesses;
    os::ProcessId ownId = 812;

    std::map<std::string, std::string> environment;

    // DPI
    std::optional<long> awarenessResult = std::nullopt; // nullopt: Shcore missing
    std::vector<int> awarenessCalls;
    std::vector<os::MonitorInfo> monitors;
    bool perMonitorDpiPresent = false;
    std::map<os::MonitorHandle, std::uint32_t> monitorDpi; // missing entry: call failed, 96
    std::optional<int> systemDpiValue = 96;

    // Windows
    bool postOk = true;
    std::vector<os::NativeMessage> posted;
    std::vector<os::WindowHandle> hidden;
    std::map<os::WindowHandle, std::string> titles;
    // Records are decoded as X11 ClientMessages carrying this atom (Linux builds).
    std::uint32_t postedMessageAtom = 0x1234;

    bool snapshotProcesses(std::vector<os::ProcessEntry> &out, std::uint32_t &error) override
    {
        const int delay = snapshotDelayMs.value;
        ++snapshotCalls.value;
        std::this_thread::sleep_for(std::chrono::milliseconds(delay));
        ++snapshotsDone.value;
        if (!snapshotOk) {
            error = snapshotError;
            return false;
        }
        out = processes;
        return true;
    }
    bool terminateProcess(os::ProcessId id) override
    {
        if (std::count(unopenable.begin(), unopenable.end(), id))
            return false;
        terminated.push_back(id);
        const auto it = std::find_if(processes.begin(), processes.end(),
                                     [id](const os::ProcessEntry &e) { return e.id == id; });
        if (it != processes.end()) // gone from the next snapshot
            processes.erase(it);
        return true;
    }
    os::ProcessHandle startProcess(const std::string &commandLine, os::ProcessId &newId) override
    {
        started.push_back(commandLine);
        if (nextProcessHandle == 0)
            return 0;
        newId = nextProcessId++;
        return nextProcessHandle++;
    }
    bool hasProcessEnded(os::ProcessHandle process) override
    {
        return std::count(endedProcesses.begin(), endedProcesses.end(), process) > 0;
    }
    os::ProcessId currentProcessId() override { return ownId; }
    os::MutexResult createNamedMutex(const std::string &) override
    {
        return os::MutexResult::Created;
    }
    std::string environmentVariable(const std::string &name) override
    {
        auto it = environment.find(name);
        return it == environment.end() ? std::string() : it->second;
    }
    void debugOutput(const std::string &) override {}
    std::optional<long> setProcessDpiAwareness(int value) override
    {
        if (!awarenessResult)
            return std::nullopt;
        awarenessCalls.push_back(value);
        return awarenessResult;
    }
    std::vector<os::MonitorInfo> enumerateMonitors() override { return monitors; }
    std::optional<std::uint32_t> dpiForMonitor(os::MonitorHandle monitor) override
    {
        if (!perMonitorDpiPresent)
            return std::nullopt;
        auto it = monitorDpi.find(monitor);
        return it == monitorDpi.end() ? 96u : it->second;
    }
    std::optional<int> systemDpi() override { return systemDpiValue; }
    bool postMessage(os::WindowHandle window, std::uint32_t message, std::uint64_t wParam,
                     std::int64_t lParam) override
    {
        if (window == 0 || !postOk)
            return false;
        posted.push_back({window, message, wParam, lParam});
        return true;
    }
    void hideWindow(os::WindowHandle window) override { hidden.push_back(window); }
    std::string windowText(os::WindowHandle window) override
    {
        auto it = titles.find(window);
        return it == titles.end() ? std::string() : it->second.substr(0, 4095);
    }
    std::optional<os::NativeMessage> decodeNativeMessage(const void *record,
                                                         std::size_t size) override
    {
#ifdef _WIN32
        return os::realPlatform().decodeNativeMessage(record, size);
#else
        return os::decodeClientMessage(record, size, postedMessageAtom);
#endif
    }
};

// Puts a fake in place for one scope.
class FakePlatformScope
{
public:
    explicit FakePlatformScope(FakePlatform &fake) { os::setPlatform(&fake); }
    ~FakePlatformScope() { os::setPlatform(nullptr); }
    FakePlatformScope(const FakePlatformScope &) = delete;
    FakePlatformScope &operator=(const FakePlatformScope &) = delete;
};

// A fresh fake in place, and the launch parameters of a run started by an engine.
inline void engineRun(FakePlatform &fake)
{
    fake = FakePlatform();
    os::setPlatform(&fake);
    Global::SetSelfTest(false);
    Global::SetIPCWnd(0x600001);
}
