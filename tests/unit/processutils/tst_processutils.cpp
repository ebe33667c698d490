#include <QtTest>

#include "app/global.h"
#include "fakeplatform.h"
#include "logcapture.h"

Q_DECLARE_METATYPE(std::vector<os::ProcessId>)

class tst_ProcessUtils : public QObject
{
    Q_OBJECT

private slots:
    void lookupByName_data();
    void lookupByName();
    void lookupById();
    void snapshotFailure();
    void kill_data();
    void kill();
    void startProcess();
    void quitLaterInSelfTest();
    void quitLaterWaits();
    void suiteOrder();

private:
    static std::vector<os::ProcessEntry> sampleProcesses()
    {
        return {{10, "init"},        {20, "Tandemo.exe"}, {30, "Skeinpad.exe"},
                {40, "Tandemo.exe"}, {50, "tandemo"},     {60, "TandemoSvc.exe"}};
    }
};

void tst_ProcessUtils::lookupByName_data()
{
    QTest::addColumn<QString>("name");
    QTest::addColumn<bool>("found");
    QTest::newRow("exact") << "Tandemo.exe" << true;
    QTest::newRow("capitals") << "TANDEMO.EXE" << true;
    QTest::newRow("without extension") << "Tandemo" << true; // a process really named so
    QTest::newRow("prefix only") << "Tandemo.ex" << false;
    QTest::newRow("suffix of another") << "Svc.exe" << false;
    QTest::newRow("with a directory") << "C:\\Tandemo\\Tandemo.exe" << false;
    QTest::newRow("absent") << "Lumaslate.exe" << false;
    QTest::newRow("empty") << "" << false;
}

void tst_ProcessUtils::lookupByName()
{
    QFETCH(QString, name);
    QFETCH(bool, found);
    FakePlatform fake;
    fake.processes = sampleProcesses();
    FakePlatformScope scope(fake);
    QCOMPARE(Global::IsProcessExists(name), found);
}

void tst_ProcessUtils::lookupById()
{
    FakePlatform fake;
    fake.processes = sampleProcesses();
    FakePlatformScope scope(fake);
    QVERIFY(Global::IsProcessExists(std::uint32_t(30)));
    QVERIFY(!Global::IsProcessExists(std::uint32_t(31)));
    QVERIFY(!Global::IsProcessExists(std::uint32_t(0)));
}

void tst_ProcessUtils::snapshotFailure()
{
    FakePlatform fake;
    fake.processes = sampleProcesses();
    fake.snapshotOk = false;
    fake.snapshotError = 4294967295u;
    FakePlatformScope scope(fake);
    LogCapture log;
    QVERIFY(!Global::IsProcessExists(QString("Tandemo.exe")));
    QVERIFY(!Global::IsProcessExists(std::uint32_t(20)));
    QVERIFY(!Global::KillProcessByProcessName("Tandemo.exe", true));
    QCOMPARE(log.lines,
             QStringList({"Global::IsProcessExists: CreateToolhelp32Snapshot fail with 4294967295",
                          "Global::IsProcessExists: CreateToolhelp32Snapshot fail with 4294967295",
                          "Global::KillProcessByProcessName: CreateToolhelp32Snapshot fail with "
                          "4294967295"}));
    QVERIFY(fake.terminated.empty());
}

void tst_ProcessUtils::kill_data()
{
    QTest::addColumn<QString>("name");
    QTest::addColumn<bool>("killAll");
    QTest::addColumn<std::vector<os::ProcessId>>("unopenable");
    QTest::addColumn<bool>("result");
    QTest::addColumn<std::vector<os::ProcessId>>("terminated");

    using V = std::vector<os::ProcessId>;
    QTest::newRow("first of two only") << "tandemo.EXE" << false << V{} << true << V{20};
    QTest::newRow("all of two") << "Tandemo.exe" << true << V{} << true << V{20, 40};
    QTest::newRow("nothing matches") << "Ferrilog.exe" << false << V{} << true << V{};
    QTest::newRow("first cannot be opened, walk stops")
        << "Tandemo.exe" << false << V{20} << false << V{};
    QTest::newRow("first cannot be opened, walk goes on")
        << "Tandemo.exe" << true << V{20} << false << V{40};
    QTest::newRow("second cannot be opened") << "Tandemo.exe" << true << V{40} << false << V{20};
}

void tst_ProcessUtils::kill()
{
    QFETCH(QString, name);
    QFETCH(bool, killAll);
    QFETCH(std::vector<os::ProcessId>, unopenable);
    QFETCH(bool, result);
    QFETCH(std::vector<os::ProcessId>, terminated);
    FakePlatform fake;
    fake.processes = sampleProcesses();
    fake.unopenable = unopenable;
    FakePlatformScope scope(fake);
    LogCapture log;
    QCOMPARE(Global::KillProcessByProcessName(name, killAll), result);
    QCOMPARE(fake.terminated, terminated);
    QVERIFY(log.lines.isEmpty()); // kills are not logged
}

void tst_ProcessUtils::startProcess()
{
    FakePlatform fake;
    fake.nextProcessHandle = 77;
    fake.nextProcessId = 640;
    FakePlatformScope scope(fake);
    std::uint32_t pid = 1;
    QCOMPARE(Global::StartProcess("TandemoInstSvc.exe", "812 640", pid), os::ProcessHandle(77));
    QCOMPARE(pid, 640u);
    // No quoting, one space between program and arguments.
    QCOMPARE(fake.started.back(), std::string("TandemoInstSvc.exe 812 640"));

    fake.nextProcessHandle = 0;
    pid = 1;
    QCOMPARE(Global::StartProcess("C:\\Program Files\\x.exe", "", pid), os::ProcessHandle(0));
    QCOMPARE(pid, 1u); // untouched on failure
    QCOMPARE(fake.started.back(), std::string("C:\\Program Files\\x.exe "));
}

void tst_ProcessUtils::quitLaterInSelfTest()
{
    Global::SetSelfTest(true);
    bool fallbackFired = false;
    QTimer::singleShot(0, [] { quitLater(60000); });
    // Ends the loop with another code if quitLater waited for its delay.
    QTimer fallback;
    fallback.setSingleShot(true);
    connect(&fallback, &QTimer::timeout, [&] {
        fallbackFired = true;
        QCoreApplication::exit(3);
    });
    fallback.start(30000);
    QCOMPARE(QCoreApplication::exec(), 0);
    QVERIFY(!fallbackFired);
}

void tst_ProcessUtils::quitLaterWaits()
{
    Global::SetSelfTest(false);
    bool stillRunning = false;
    QTimer::singleShot(0, [] { quitLater(200); });
    QTimer::singleShot(20, [&] { stillRunning = true; });
    QCOMPARE(QCoreApplication::exec(), 0);
    QVERIFY(stillRunning); // the loop outlived the call
    Global::SetSelfTest(true);
}

void tst_ProcessUtils::suiteOrder()
{
    QCOMPARE(appSuiteProcessNames(), QStringList({"Tandemo.exe", "Skeinpad.exe", "Lumaslate.exe",
                                                  "Ferrilog.exe", "TandemoSvc.exe"}));
}

QTEST_GUILESS_MAIN(tst_ProcessUtils)
#include "tst_processutils.moc"
