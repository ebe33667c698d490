// The logic behind the windows, on a fake platform: launch parameters, processes, DPI, version
// comparison, the proposed folder's decoding, progress width.
#include "unittest.h"

#include "app/launchparams.h"
#include "app/startup.h"
#include "ipc/initpath.h"
#include "kit/dpiutil.h"
#include "loading/versioncompare.h"
#include "mainform/installlogic.h"

class tst_Logic : public QObject
{
    Q_OBJECT
    std::optional<FakePlatform> f;

private slots:
    void init() { f.emplace(); }

    void arguments()
    {
        // Decimal only, hexadecimal is 0; an empty text replaces its default; local 8-bit text
        // taken whole; ids beyond 32 bits are 0; a negative handle is sign-extended.
        const std::tuple<QList<QByteArray>, QString, quint64> rows[] = {
            {{},
             "hIPCWnd= 0|bDisableChoosePath= false|bWithoutAgreement= false|strVersionNew= "
             "\"3.0.0.5\"|strVersionOld= \"0.0.0.0\"|iInstallerProcId= 0|strIPCFilePath= \"\"|"
             "bIsUnicodeNsis= false",
             0},
            {{"0x10", "1", "true", "", "3.0.0.5", "12", "/tmp/f", "1", "9"},
             "hIPCWnd= 0|bDisableChoosePath= true|bWithoutAgreement= false|strVersionNew= \"\"|"
             "strVersionOld= \"3.0.0.5\"|iInstallerProcId= 12|strIPCFilePath= \"/tmp/f\"|"
             "bIsUnicodeNsis= true",
             0},
            {{"7", "0", "2", "3.0.0.5 ", "版本", "99999999999", "/tmp/目录 x"},
             "hIPCWnd= 7|bDisableChoosePath= false|bWithoutAgreement= true|strVersionNew= "
             "\"3.0.0.5 \"|strVersionOld= \"版本\"|iInstallerProcId= 0|strIPCFilePath= "
             "\"/tmp/目录 x\"|bIsUnicodeNsis= false",
             7},
            {{"007", " 1 ", "12abc", "", "", "-2147483648"},
             "hIPCWnd= 7|bDisableChoosePath= true|bWithoutAgreement= false",
             7},
            {{"-2", "0", "0", "", "", "2147483648"}, "hIPCWnd= -2", quint64(-2)}};
        for (auto [args, lines, handle] : rows) {
            args.prepend("CorvalenSetup");
            std::vector<char *> argv;
            for (QByteArray &a : args)
                argv.push_back(a.data());
            LogCapture log;
            for (int i = 1; i <= LaunchParams::kArgumentCount; ++i)
                LaunchParams::parseArgument(i, args.size(), argv.data());
            QCOMPARE(log.lines.mid(0, lines.count('|') + 1).join('|'), lines);
            QCOMPARE(log.lines.size(), LaunchParams::kArgumentCount);
            QCOMPARE(quint64(Global::GetIPCWnd()), handle);
            // The log shows what was stored.
            QCOMPARE(log.lines[5],
                     QString("iInstallerProcId= %1").arg(Global::GetInstallerProcId()));
            QCOMPARE(log.lines[3], "strVersionNew= \"" + Global::GetVersionNew() + '"');
            QCOMPARE(Global::GetUnicodeNsis(), log.lines.last().endsWith("true"));
        }
    }

    void processes()
    {
        const std::vector<os::ProcessEntry> all{{10, "init"},         {20, "Tandemo.exe"},
                                                {30, "Skeinpad.exe"}, {40, "Tandemo.exe"},
                                                {50, "tandemo"},      {60, "TandemoSvc.exe"}};
        f->processes = all;
        // Whole names without case; "tandemo" is a process really named so.
        for (const QString name : {"TANDEMO.EXE", "Tandemo"})
            QVERIFY(Global::IsProcessExists(name));
        for (const QString name : {"Tandemo.ex", "Svc.exe", "C:\\Tandemo\\Tandemo.exe"})
            QVERIFY(!Global::IsProcessExists(name));
        QVERIFY(Global::IsProcessExists(30u) && !Global::IsProcessExists(31u));
        // All or the first only; one that cannot be opened fails the call, the walk goes on.
        const std::tuple<bool, std::set<os::ProcessId>, bool, Ids> kills[] = {
            {false, {}, true, {20}},
            {true, {}, true, {20, 40}},
            {false, {20}, false, {}},
            {true, {20}, false, {40}}};
        for (const auto &[killAll, unopenable, result, terminated] : kills) {
            f->terminated.clear();
            f->unopenable = unopenable;
            QCOMPARE(Global::KillProcessByProcessName("tandemo.EXE", killAll), result);
            QCOMPARE(f->terminated, terminated);
        }
        f->terminated.clear();
        f->snapshotOk = false;
        LogCapture log;
        QVERIFY(!Global::IsProcessExists(30u));
        QVERIFY(!Global::KillProcessByProcessName("Tandemo.exe", true));
        const QString line = "Global::%1: CreateToolhelp32Snapshot fail with 4294967295";
        QCOMPARE(log.lines,
                 QStringList({line.arg("IsProcessExists"), line.arg("KillProcessByProcessName")}));
        QVERIFY(f->terminated.empty());
    }

    void startProcess()
    {
        f->nextProcessHandle = 77;
        f->nextProcessId = 640;
        std::uint32_t pid = 1;
        QCOMPARE(Global::StartProcess("TandemoInstSvc.exe", "812 640", pid), os::ProcessHandle(77));
        QCOMPARE(pid, 640u);
        QCOMPARE(f->started.back(), std::string("TandemoInstSvc.exe 812 640")); // not quoted
        f->nextProcessHandle = 0;
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
            QCOMPARE(execBounded(30000), 0);
            QCOMPARE(clock.elapsed() >= 250, !selfTest); // at once in self-test mode only
        }
    }

    void dpi()
    {
        const std::pair<std::optional<int>, float> system[] = {
            {144, 1.5f}, {48, 0.5f}, {47, 1.0f}, {std::nullopt, 1.0f}};
        for (const auto &[dpi, scale] : system) {
            f->systemDpiValue = dpi;
            QCOMPARE(DPIUtil::getSystemScale(), scale);
        }
        // The last secondary wins; without the per-monitor call the system scale is both;
        // flags other than exactly primary are secondary; an unreadable monitor is skipped.
        using Monitors = std::vector<os::MonitorInfo>;
        const std::tuple<Monitors, std::map<os::MonitorHandle, std::uint32_t>, int, float, float>
            rows[] = {{{{1, true, 1}, {2, true, 0}, {3, true, 0}},
                       {{1, 96}, {2, 120}, {3, 168}},
                       96,
                       1,
                       1.75f},
                      {{{1, true, 1}, {2, true, 0}}, {}, 120, 1.25f, 1.25f},
                      {{{1, true, 1}, {2, true, 0}}, {{1, 96}, {2, 96}}, 144, 1, 1},
                      {{{1, true, 3}, {2, true, 1}}, {{1, 192}, {2, 120}}, 96, 1.25f, 2},
                      {{{1, false, 1}, {2, true, 0}, {3, true, 1}},
                       {{1, 192}, {2, 144}, {3, 120}},
                       96,
                       1.25f,
                       1.5f},
                      // Kept from one enumeration to the next: one monitor leaves the secondary.
                      {{{1, true, 1}}, {{1, 144}}, 96, 1.5f, 1.5f}};
        for (const auto &[monitors, dpis, systemDpi, primary, secondary] : rows) {
            f->monitors = monitors;
            f->monitorDpi = dpis;
            f->systemDpiValue = systemDpi;
            float p = 0, s = 0;
            DPIUtil::getMonitorScales(&p, &s);
            QCOMPARE(std::make_pair(p, s), std::make_pair(primary, secondary));
        }
        f->monitors = {{1, true, 1}, {2, true, 0}};
        f->monitorDpi = {{1, 144}, {2, 120}};
        qputenv("QT_PLUGIN_PATH", "/somewhere/else");
        qputenv("QT_QPA_PLATFORM_PLUGIN_PATH", "/somewhere/else");
        Startup::initDpiEnvironment();
        // Per-monitor aware while reading the monitors, system aware afterwards.
        QCOMPARE(f->awarenessCalls, std::vector<int>({2, 1}));
        QCOMPARE(qgetenv("QT_SCREEN_SCALE_FACTORS"), QByteArray("1.5;1.25"));
        QCOMPARE(qgetenv("QT_PLUGIN_PATH") + qgetenv("QT_QPA_PLATFORM_PLUGIN_PATH"), QByteArray());
        QVERIFY(QCoreApplication::testAttribute(Qt::AA_UseHighDpiPixmaps));
        QCOMPARE(Startup::screenScaleFactors(1.0f / 3.0f, 1.0f), QByteArray("0.333333;1"));
    }

    void versions()
    {
        // Numbers, not text; the first difference decides, a bad part after it is never reached.
        const std::optional<int> none, newer(1), same(0), older(-1);
        const std::tuple<QString, QString, std::optional<int>> rows[] = {
            {"3.0.0.10", "3.0.0.9", newer}, {"3.0.0.05", "3.0.0.5", same},
            {"4.0.0.0", "3.9.9.9", newer},  {"3.0.0.5", "3.1.0.0", older},
            {"3.0.0", "0.0.0.0", none},     {"3.0.0.5", "3.0.0.5.1", none},
            {"3.0.0.5", "3.0.0.x", none},   {"2.0.0.0", "3.0.0.x", older},
            {"3..0.5", "3.0.0.5", none},    {"3.0.0.99999999999", "3.0.0.5", none},
            {"3.0.0.-1", "3.0.0.0", older}};
        for (const auto &[newVersion, oldVersion, result] : rows)
            QCOMPARE(compareVersions(newVersion, oldVersion), result);
    }

    void folders()
    {
        // An odd byte dropped, a byte-order mark kept.
        const std::pair<QByteArray, QString> files[] = {
            {"C", ""},
            {QByteArray("C\0:\0x", 5), "C:"},
            {QByteArray("\xff\xfe"
                        "D\0",
                        4),
             QString(QChar(0xfeff)) + "D"},
            {QByteArray("\x89\x5b\xc5\x88", 4), "安装"},
            {QByteArray("a\0\0\0b\0", 6), QString("a") + QChar(0) + "b"}};
        for (const auto &[bytes, text] : files)
            QCOMPARE(InitPath::decodeIpcFile(bytes), text);
        // No doubled separator, in three passes only.
        const std::pair<QString, QString> browsed[] = {
            {"C:/", "C:\\Tandemo"},
            {"D:/Apps/", "D:\\Apps\\Tandemo"},
            {"//server/share", "\\server\\share\\Tandemo"},
            {"D:////////////////x", "D:\\\\x\\Tandemo"}};
        for (const auto &[chosen, path] : browsed)
            QCOMPARE(InstallLogic::browsedInstallPath(chosen), path);
        const std::pair<int, int> widths[] = {
            {4, 16},        {5, 19},       {99, 376},          {100, 380},
            {-5651475, 16}, {INT_MIN, 16}, {6000000, 22800000}};
        for (const auto &[progress, width] : widths)
            QCOMPARE(InstallLogic::progressBarWidth(380, progress), width);
    }
};

QTEST_GUILESS_MAIN(tst_Logic)
#include "tst_logic.moc"
