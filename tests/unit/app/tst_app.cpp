// Launch parameters, process utilities and DPI: the logic behind the windows, on a fake platform.
#include <QtTest>

#include "app/global.h"
#include "app/launchparams.h"
#include "app/startup.h"
#include "fakeplatform.h"
#include "kit/dpiutil.h"
#include "logcapture.h"

using Ids = std::vector<os::ProcessId>;
using Monitors = std::vector<os::MonitorInfo>;
using DpiMap = std::map<os::MonitorHandle, std::uint32_t>;
struct Arguments
{
    QList<QByteArray> args;
    QStringList lines; // the first lines of the log
    quint64 handle;
};
struct Kill
{
    bool all;
    Ids unopenable;
    bool result;
    Ids terminated;
};
struct Scales
{
    Monitors monitors;
    bool perMonitor;
    DpiMap dpi;
    int systemDpi;
    float primary, secondary;
};
Q_DECLARE_METATYPE(Arguments)
Q_DECLARE_METATYPE(Kill)
Q_DECLARE_METATYPE(Scales)

namespace {

const std::vector<os::ProcessEntry> kProcesses{{10, "init"},         {20, "Tandemo.exe"},
                                               {30, "Skeinpad.exe"}, {40, "Tandemo.exe"},
                                               {50, "tandemo"},      {60, "TandemoSvc.exe"}};

float monitorScales(const Scales &s, float *secondary)
{
    FakePlatform fake;
    fake.monitors = s.monitors;
    fake.perMonitorDpiPresent = s.perMonitor;
    fake.monitorDpi = s.dpi;
    fake.systemDpiValue = s.systemDpi;
    FakePlatformScope scope(fake);
    float primary = 0;
    DPIUtil::getMonitorScales(&primary, secondary);
    return primary;
}

} // namespace

class tst_App : public QObject
{
    Q_OBJECT

private slots:
    void arguments_data()
    {
        QTest::addColumn<Arguments>("row");
        QTest::newRow("none: the defaults")
            << Arguments{{},
                         {"hIPCWnd= 0", "bDisableChoosePath= false", "bWithoutAgreement= false",
                          "strVersionNew= \"3.0.0.5\"", "strVersionOld= \"0.0.0.0\"",
                          "iInstallerProcId= 0", "strIPCFilePath= \"\"", "bIsUnicodeNsis= false"},
                         0};
        QTest::newRow("nine: hexadecimal is 0, an empty text replaces its default") << Arguments{
            {"0x10", "1", "true", "", "3.0.0.5", "12", "/tmp/f", "1", "9"},
            {"hIPCWnd= 0", "bDisableChoosePath= true", "bWithoutAgreement= false",
             "strVersionNew= \"\"", "strVersionOld= \"3.0.0.5\"", "iInstallerProcId= 12",
             "strIPCFilePath= \"/tmp/f\"", "bIsUnicodeNsis= true"},
            0};
        QTest::newRow("seven: local 8-bit text taken whole, id beyond 32 bits") << Arguments{
            {"7", "0", "2", "3.0.0.5 ", "版本", "99999999999", "/tmp/目录 x"},
            {"hIPCWnd= 7", "bDisableChoosePath= false", "bWithoutAgreement= true",
             "strVersionNew= \"3.0.0.5 \"", "strVersionOld= \"版本\"", "iInstallerProcId= 0",
             "strIPCFilePath= \"/tmp/目录 x\"", "bIsUnicodeNsis= false"},
            7};
        QTest::newRow("decimal only: zeros, spaces, garbage")
            << Arguments{{"007", " 1 ", "12abc", "", "", "-2147483648"},
                         {"hIPCWnd= 7", "bDisableChoosePath= true", "bWithoutAgreement= false"},
                         7};
        QTest::newRow("a negative handle is sign-extended, 2^31 is 0")
            << Arguments{{"-2", "0", "0", "", "", "2147483648"}, {"hIPCWnd= -2"}, quint64(-2)};
    }
    void arguments()
    {
        QFETCH(Arguments, row);
        row.args.prepend("CorvalenSetup");
        std::vector<char *> argv;
        for (QByteArray &a : row.args)
            argv.push_back(a.data());
        argv.push_back(nullptr);
        LogCapture log;
        for (int i = 1; i <= LaunchParams::kArgumentCount; ++i)
            LaunchParams::parseArgument(i, row.args.size(), argv.data());
        QCOMPARE(log.lines.mid(0, row.lines.size()), row.lines);
        QCOMPARE(log.lines.size(), LaunchParams::kArgumentCount);
        QCOMPARE(quint64(Global::GetIPCWnd()), row.handle);
        // The log shows what was stored.
        QCOMPARE(log.lines.at(5),
                 QString("iInstallerProcId= %1").arg(Global::GetInstallerProcId()));
        QCOMPARE(log.lines.at(3), "strVersionNew= \"" + Global::GetVersionNew() + '"');
        QCOMPARE(Global::GetUnicodeNsis(), log.lines.last().endsWith("true"));
    }

    void lookupByName_data()
    {
        QTest::addColumn<QString>("name");
        QTest::addColumn<bool>("found");
        QTest::newRow("capitals") << "TANDEMO.EXE" << true;
        QTest::newRow("without extension") << "Tandemo" << true; // a process really named so
        QTest::newRow("prefix only") << "Tandemo.ex" << false;
        QTest::newRow("suffix of another") << "Svc.exe" << false;
        QTest::newRow("with a directory") << "C:\\Tandemo\\Tandemo.exe" << false;
    }
    void lookupByName()
    {
        QFETCH(QString, name);
        QFETCH(bool, found);
        FakePlatform fake;
        fake.processes = kProcesses;
        FakePlatformScope scope(fake);
        QCOMPARE(Global::IsProcessExists(name), found);
    }

    void kill_data()
    {
        QTest::addColumn<Kill>("row");
        QTest::newRow("first of two only") << Kill{false, {}, true, {20}};
        QTest::newRow("all of two") << Kill{true, {}, true, {20, 40}};
        QTest::newRow("first cannot be opened, walk stops") << Kill{false, {20}, false, {}};
        QTest::newRow("first cannot be opened, walk goes on") << Kill{true, {20}, false, {40}};
    }
    void kill()
    {
        QFETCH(Kill, row);
        FakePlatform fake;
        fake.processes = kProcesses;
        fake.unopenable = row.unopenable;
        FakePlatformScope scope(fake);
        QCOMPARE(Global::KillProcessByProcessName("tandemo.EXE", row.all), row.result);
        QCOMPARE(fake.terminated, row.terminated);
    }

    void snapshotFailureAndIds()
    {
        FakePlatform fake;
        fake.processes = kProcesses;
        FakePlatformScope scope(fake);
        QVERIFY(Global::IsProcessExists(std::uint32_t(30)));
        QVERIFY(!Global::IsProcessExists(std::uint32_t(31)));
        fake.snapshotOk = false;
        fake.snapshotError = 4294967295u;
        LogCapture log;
        QVERIFY(!Global::IsProcessExists(std::uint32_t(30)));
        QVERIFY(!Global::KillProcessByProcessName("Tandemo.exe", true));
        const QString line = "Global::%1: CreateToolhelp32Snapshot fail with 4294967295";
        QCOMPARE(log.lines,
                 QStringList({line.arg("IsProcessExists"), line.arg("KillProcessByProcessName")}));
        QVERIFY(fake.terminated.empty());
    }

    void startProcess()
    {
        FakePlatform fake;
        fake.nextProcessHandle = 77;
        fake.nextProcessId = 640;
        FakePlatformScope scope(fake);
        std::uint32_t pid = 1;
        QCOMPARE(Global::StartProcess("TandemoInstSvc.exe", "812 640", pid), os::ProcessHandle(77));
        QCOMPARE(pid, 640u);
        QCOMPARE(fake.started.back(), std::string("TandemoInstSvc.exe 812 640")); // not quoted
        fake.nextProcessHandle = 0;
        QCOMPARE(Global::StartProcess("x.exe", "", pid), os::ProcessHandle(0));
        QCOMPARE(pid, 640u); // untouched on failure
    }

    void quitLater()
    {
        for (const bool selfTest : {true, false}) {
            Global::SetSelfTest(selfTest);
            QElapsedTimer clock;
            clock.start();
            QTimer::singleShot(0, [selfTest] { ::quitLater(selfTest ? 60000 : 300); });
            QTimer fallback;
            connect(&fallback, &QTimer::timeout, [] { QCoreApplication::exit(3); });
            fallback.start(30000);
            QCOMPARE(QCoreApplication::exec(), 0);
            QCOMPARE(clock.elapsed() >= 250, !selfTest); // at once in self-test mode only
        }
    }

    void systemScale()
    {
        FakePlatform fake;
        FakePlatformScope scope(fake);
        const std::pair<std::optional<int>, float> rows[] = {
            {144, 1.5f}, {48, 0.5f}, {47, 1.0f}, {std::nullopt, 1.0f}};
        for (const auto &[dpi, scale] : rows) {
            fake.systemDpiValue = dpi;
            QCOMPARE(DPIUtil::getSystemScale(), scale);
        }
    }

    void monitorScales_data()
    {
        QTest::addColumn<Scales>("row");
        QTest::newRow("last secondary wins") << Scales{{{1, true, 1}, {2, true, 0}, {3, true, 0}},
                                                       true,
                                                       {{1, 96}, {2, 120}, {3, 168}},
                                                       96,
                                                       1.0f,
                                                       1.75f};
        QTest::newRow("no per-monitor call: system scale for both")
            << Scales{{{1, true, 1}, {2, true, 0}}, false, {}, 120, 1.25f, 1.25f};
        QTest::newRow("failing per-monitor call counts as 96")
            << Scales{{{1, true, 1}, {2, true, 0}}, true, {}, 144, 1.0f, 1.0f};
        QTest::newRow("flags other than exactly primary are secondary")
            << Scales{{{1, true, 3}, {2, true, 1}}, true, {{1, 192}, {2, 120}}, 96, 1.25f, 2.0f};
        QTest::newRow("unreadable monitor is skipped")
            << Scales{{{1, false, 1}, {2, true, 0}, {3, true, 1}},
                      true,
                      {{1, 192}, {2, 144}, {3, 120}},
                      96,
                      1.25f,
                      1.5f};
    }
    void monitorScales()
    {
        QFETCH(Scales, row);
        float secondary = 0;
        QCOMPARE(::monitorScales(row, &secondary), row.primary);
        QCOMPARE(secondary, row.secondary);
        // Kept from one enumeration to the next: one monitor leaves the secondary as it was.
        QCOMPARE(::monitorScales({{{1, true, 1}}, true, {{1, 144}}, 96, 0, 0}, &secondary), 1.5f);
        QCOMPARE(secondary, row.secondary);
    }

    void environmentBeforeApplication()
    {
        FakePlatform fake;
        fake.awarenessResult = 0;
        fake.monitors = {{1, true, 1}, {2, true, 0}};
        fake.perMonitorDpiPresent = true;
        fake.monitorDpi = {{1, 144}, {2, 120}};
        FakePlatformScope scope(fake);
        qputenv("QT_PLUGIN_PATH", "/somewhere/else");
        qputenv("QT_QPA_PLATFORM_PLUGIN_PATH", "/somewhere/else");
        Startup::initDpiEnvironment();
        // Per-monitor aware while reading the monitors, system aware afterwards.
        QCOMPARE(fake.awarenessCalls, std::vector<int>({2, 1}));
        QCOMPARE(qgetenv("QT_SCREEN_SCALE_FACTORS"), QByteArray("1.5;1.25"));
        QVERIFY(qgetenv("QT_PLUGIN_PATH").isEmpty());
        QVERIFY(qgetenv("QT_QPA_PLATFORM_PLUGIN_PATH").isEmpty());
        QVERIFY(QCoreApplication::testAttribute(Qt::AA_UseHighDpiPixmaps));
        QCOMPARE(Startup::screenScaleFactors(1.0f / 3.0f, 1.0f), QByteArray("0.333333;1"));
    }
};

QTEST_GUILESS_MAIN(tst_App)
#include "tst_app.moc"
