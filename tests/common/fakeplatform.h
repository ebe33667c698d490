// What every unit test shares, Qt Core only: a scriptable os::Platform that records every call,
// the Qt debug stream, event hooks, a bounded event loop. widgethelpers.h adds
// what the windows' tests share.
#pragma once

#include <QtTest>
#include <map>
#include <numeric>
#include <set>

#include "app/global.h"
#include "os/os.h"

using Ids = std::vector<os::ProcessId>;

// In place for its lifetime.
class FakePlatform : public os::Platform
{
public:
    FakePlatform() { os::setPlatform(this); }
    ~FakePlatform() override { os::setPlatform(nullptr); }
    static constexpr std::uint32_t atom = 0x1234; // of the X11 records carrying posted messages
    bool snapshotOk = true, postOk = true;
    std::vector<os::ProcessEntry> processes;
    std::atomic<int> snapshotDelayMs{0}, snapshotCalls{0}, snapshotsDone{0}; // pool threads
    std::set<std::int64_t> unopenable, ended;
    Ids terminated;
    os::ProcessHandle nextProcessHandle = 100, nextProcessId = 4000; // handle 0: start fails
    std::vector<std::string> started;
    std::map<std::string, std::string> environment;
    std::vector<int> awarenessCalls;
    std::vector<os::MonitorInfo> monitors;
    std::map<os::MonitorHandle, std::uint32_t> monitorDpi; // empty: no per-monitor call
    std::optional<int> systemDpiValue = 96;
    std::vector<os::NativeMessage> posted;
    std::vector<os::WindowHandle> hidden;
    std::map<os::WindowHandle, std::string> titles;

    bool snapshotProcesses(std::vector<os::ProcessEntry> &out, std::uint32_t &error) override
    {
        ++snapshotCalls;
        QThread::msleep(snapshotDelayMs);
        ++snapshotsDone;
        out = processes, error = 4294967295u;
        return snapshotOk;
    }
    bool terminateProcess(os::ProcessId id) override
    {
        return !unopenable.count(id) && (terminated.push_back(id), true);
    }
    os::ProcessHandle startProcess(const std::string &commandLine, os::ProcessId &newId) override
    {
        started.push_back(commandLine);
        newId = nextProcessId++;
        return nextProcessHandle ? nextProcessHandle++ : 0;
    }
    bool hasProcessEnded(os::ProcessHandle process) override { return ended.count(process); }
    os::ProcessId currentProcessId() override { return 812; }
    os::MutexResult createNamedMutex(const std::string &) override { return {}; }
    std::string environmentVariable(const std::string &name) override { return environment[name]; }
    void debugOutput(const std::string &) override {}
    std::optional<long> setProcessDpiAwareness(int value) override
    {
        return awarenessCalls.push_back(value), 0;
    }
    std::vector<os::MonitorInfo> enumerateMonitors() override { return monitors; }
    std::optional<std::uint32_t> dpiForMonitor(os::MonitorHandle monitor) override
    {
        return monitorDpi.empty() ? std::nullopt : std::optional(monitorDpi[monitor]);
    }
    std::optional<int> systemDpi() override { return systemDpiValue; }
    bool postMessage(os::WindowHandle w, std::uint32_t m, std::uint64_t wp,
                     std::int64_t lp) override
    {
        return w && postOk && (posted.push_back({w, m, wp, lp}), true);
    }
    void hideWindow(os::WindowHandle window) override { hidden.push_back(window); }
    std::string windowText(os::WindowHandle window) override { return titles[window]; }
    std::optional<os::NativeMessage> decodeNativeMessage(const void *r, std::size_t n) override
    {
        return os::decodeClientMessage(r, n, atom);
    }
    QList<uint> sent() const
    {
        return std::accumulate(
            posted.begin(), posted.end(), QList<uint>(),
            [](QList<uint> l, const os::NativeMessage &m) { return l << m.message; });
    }
};

// Collects the Qt debug stream for its lifetime.
struct LogCapture
{
    static inline LogCapture *current = nullptr;
    QStringList lines;
    QtMessageHandler previous = qInstallMessageHandler(
        [](QtMsgType, const QMessageLogContext &, const QString &line) { current->lines << line; });
    LogCapture() { current = this; }
    ~LogCapture() { qInstallMessageHandler(previous); }
};

// Sees every event of `watched` before it is handled.
struct EventHook : QObject
{
    std::function<void(QEvent *)> fn;
    EventHook(QObject *o, std::function<void(QEvent *)> f) : fn(f) { o->installEventFilter(this); }
    bool eventFilter(QObject *, QEvent *e) override { return fn(e), false; }
};

// Runs the event loop until the code under test ends it; 3 when it never does.
inline int execBounded(int ms = 10000)
{
    QObject scope;
    QTimer::singleShot(ms, &scope, [] { QCoreApplication::exit(3); });
    return QCoreApplication::exec();
}
