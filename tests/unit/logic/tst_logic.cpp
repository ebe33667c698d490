// What decides without a window (corvalen_logic, Qt Core only), on a fake platform: the launch
// parameters, the process utilities, the version comparison, the browsed folder, the bar's
// width, the install button's refusals.
#include "fakeplatform.h"

#include "app/launchparams.h"
#include "loading/versioncompare.h"
#include "mainform/installlogic.h"

class tst_Logic : public QObject
{
    Q_OBJECT
    std::optional<FakePlatform> f;

private slots:
    void init() { f.emplace(); }

    // Decimal only, hexadecimal is 0; an empty text replaces its default; local 8-bit text taken
    // whole; ids beyond 32 bits are 0; a negative handle is sign-extended.
    void arguments_data()
    {
        QTest::addColumn<QList<QByteArray>>("args");
        QTest::addColumn<QString>("values");
        QTest::newRow("none") << QList<QByteArray>()
                              << R"(0|false|false|"3.0.0.5"|"0.0.0.0"|0|""|false)";
        QTest::newRow("hexadecimal, one too many")
            << QList<QByteArray>{"0x10", "1", "true", "", "3.0.0.5", "12", "/tmp/f", "1", "9"}
            << R"(0|true|false|""|"3.0.0.5"|12|"/tmp/f"|true)";
        QTest::newRow("8-bit text, id beyond 32 bits")
            << QList<QByteArray>{"7", "0", "2", "3.0.0.5 ", "版本", "99999999999", "/tmp/目录 x"}
            << R"(7|false|true|"3.0.0.5 "|"版本"|0|"/tmp/目录 x"|false)";
        QTest::newRow("leading zeros, blanks, trailing letters")
            << QList<QByteArray>{"007", " 1 ", "12abc", "", "", "-2147483648"}
            << R"(7|true|false|""|""|-2147483648)";
        QTest::newRow("negative handle") << QList<QByteArray>{"-2", "0", "0", "", "", "2147483648"}
                                         << R"(-2|false|false|""|""|0)";
    }
    void arguments()
    {
        QFETCH(QList<QByteArray>, args);
        QFETCH(QString, values);
        const QStringList names{"hIPCWnd",        "bDisableChoosePath", "bWithoutAgreement",
                                "strVersionNew",  "strVersionOld",      "iInstallerProcId",
                                "strIPCFilePath", "bIsUnicodeNsis"};
        args.prepend("CorvalenSetup");
        std::vector<char *> argv;
        for (QByteArray &a : args)
            argv.push_back(a.data());
        LogCapture log;
        for (int i = 1; i <= LaunchParams::kArgumentCount; ++i)
            LaunchParams::parseArgument(i, args.size(), argv.data());
        QCOMPARE(log.lines.size(), names.size());
        for (int i = 0; i < values.count('|') + 1; ++i)
            QCOMPARE(log.lines[i], names[i] + "= " + values.section('|', i, i));
        // Written back as the engines write their window: the same text.
        QCOMPARE(QString::number(os::windowHandleArgument(Global::GetIPCWnd())),
                 values.section('|', 0, 0));
    }

    void processes()
    {
        f->processes = {{10, "init"},        {20, "Tandemo.exe"}, {30, "Skeinpad.exe"},
                        {40, "Tandemo.exe"}, {50, "tandemo"},     {60, "TandemoSvc.exe"}};
        // Whole names without case; "tandemo" is a process really named so.
        for (const QString name : {"TANDEMO.EXE", "Tandemo"})
            QVERIFY(Global::IsProcessExists(name));
        for (const QString name : {"Tandemo.ex", "Svc.exe", "C:\\Tandemo\\Tandemo.exe"})
            QVERIFY(!Global::IsProcessExists(name));
        QVERIFY(Global::IsProcessExists(30u) && !Global::IsProcessExists(31u));
        // All or the first only; one that cannot be opened fails the call, the walk goes on.
        const std::tuple<bool, std::set<std::int64_t>, bool, Ids> kills[] = {
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
        // A failed start leaves the id as it was.
        f->nextProcessHandle = 0;
        std::uint32_t pid = 1;
        QVERIFY(!Global::StartProcess("x.exe", "", pid) && pid == 1);
        Global::SetSelfTest(true);
        QTimer::singleShot(0, [] { ::quitLater(60000); });
        QCOMPARE(execBounded(), 0); // at once in self-test mode
        Global::SetSelfTest(false);
    }

    // Numbers, not text; the first difference decides, a bad part after it is never reached.
    void versions_data()
    {
        QTest::addColumn<QString>("newVersion");
        QTest::addColumn<QString>("oldVersion");
        QTest::addColumn<int>("result"); // 2: cannot be compared
        const std::tuple<const char *, const char *, const char *, int> rows[] = {
            {"numbers, not text", "3.0.0.10", "3.0.0.9", 1},
            {"leading zero", "3.0.0.05", "3.0.0.5", 0},
            {"first part decides", "4.0.0.0", "3.9.9.9", 1},
            {"installed newer", "3.0.0.5", "3.1.0.0", -1},
            {"three parts", "3.0.0", "0.0.0.0", 2},
            {"five parts", "3.0.0.5", "3.0.0.5.1", 2},
            {"a letter reached", "3.0.0.5", "3.0.0.x", 2},
            {"a letter never reached", "2.0.0.0", "3.0.0.x", -1},
            {"empty part", "3..0.5", "3.0.0.5", 2},
            {"beyond 32 bits", "3.0.0.99999999999", "3.0.0.5", 2},
            {"negative", "3.0.0.-1", "3.0.0.0", -1}};
        for (const auto &[name, newVersion, oldVersion, result] : rows)
            QTest::newRow(name) << newVersion << oldVersion << result;
    }
    void versions()
    {
        QFETCH(QString, newVersion);
        QFETCH(QString, oldVersion);
        QFETCH(int, result);
        QCOMPARE(compareVersions(newVersion, oldVersion).value_or(2), result);
    }

    void browsedPathAndBar()
    {
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

    // Every combination of the four conditions, the first failing check in order winning; then
    // no figures yet, and a requirement compared unsigned.
    void refusals_data()
    {
        QTest::addColumn<int>("mask"); // read-only 1, absent 2, full 4, unticked 8
        QTest::addColumn<QString>("notice");
        const QString agreement = "请选阅读并同意《服务协议》和《隐私政策》",
                      missing = InstallLogic::missingFolderNotice("D:\\x\\Tandemo"),
                      space = "磁盘空间不足。请先清理磁盘，或选择另一个磁盘。",
                      readOnly = "您选择的安装目录没有写权限，请选择其他安装目录。";
        for (int mask = 0; mask < 18; ++mask) {
            QStringList name;
            for (const auto &[bit, word] : {std::pair(1, "read-only"), std::pair(2, "absent"),
                                            std::pair(4, "full"), std::pair(8, "unticked")})
                if (mask < 16 && (mask & bit))
                    name << word;
            QTest::newRow(mask == 16   ? "no figures yet"
                          : mask == 17 ? "required beyond 31 bits"
                                       : qPrintable(name.isEmpty() ? "all pass" : name.join(", ")))
                << mask
                << (mask & 8                ? agreement
                    : mask & 2              ? missing
                    : mask & 4 || mask > 15 ? space
                    : mask & 1              ? readOnly
                                            : QString());
        }
    }
    void refusals()
    {
        QFETCH(int, mask);
        QFETCH(QString, notice);
        const std::uint32_t required = mask == 16 ? 0 : mask == 17 ? 4294967295u : 1500;
        const std::uint32_t available = mask == 16 ? 0 : mask & 4 ? 1500 : 10000;
        QCOMPARE(InstallLogic::installRefusal(!(mask & 8), mask & 2, available, required,
                                              !(mask & 1), "D:\\x\\Tandemo"),
                 notice);
    }
};

QTEST_GUILESS_MAIN(tst_Logic)
#include "tst_logic.moc"
