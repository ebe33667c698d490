// The real CorvalenSetup driven by the reference engine (or alone, in self-test mode), with
// clicks on the real windows through xdotool.
#include "../common/e2e.h"

#include <csignal>
#include <sys/types.h>

using namespace e2e;

namespace {

const QString kBin = CORVALEN_BIN_DIR;

bool processGone(qint64 pid)
{
    return !QFileInfo::exists(QString("/proc/%1").arg(pid)) ||
           QFile(QString("/proc/%1/stat").arg(pid)).open(QFile::ReadOnly) == false;
}

// The helper services a front end started: "TandemoInstSvc.exe <front end pid> <engine pid>".
// Only those, never a service of anybody else's on the machine.
QList<pid_t> servicesOf(qint64 frontEnd)
{
    QList<pid_t> out;
    const QStringList entries = QDir("/proc").entryList(QDir::Dirs | QDir::NoDotAndDotDot);
    for (const QString &entry : entries) {
        QFile cmdline("/proc/" + entry + "/cmdline");
        if (!cmdline.open(QFile::ReadOnly))
            continue;
        const QList<QByteArray> argv = cmdline.readAll().split('\0');
        if (argv.size() >= 2 && argv[0].endsWith("TandemoInstSvc.exe") &&
            argv[1] == QByteArray::number(frontEnd))
            out << static_cast<pid_t>(entry.toInt());
    }
    return out;
}

} // namespace

class tst_E2E : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase();
    void init();
    void cleanup();
    void installByClicks_data();
    void installByClicks();
    void withoutAgreementUnattended();
    void browseAnswersAndMissingFolder();
    void overwriteQuestion_data();
    void overwriteQuestion();
    void higherVersionRefused();
    void engineKilledMidway();
    void frontEndKilledMidway();
    void selfTestByClicks();
    void engineWindowKeptHidden();
    void helperServiceRestarted();
    void startupLog_data();
    void startupLog();
    void secondInstance();
    void runningApplicationClosed();

private:
    void startEngine(const QStringList &args);
    int waitEngine(int ms = 30000);
    QList<QJsonObject> log() const { return readLog(m_dir.path() + "/engine.jsonl"); }
    QString frontEndLog() const { return QString::fromUtf8(m_engineOutput); }
    qint64 frontEndPid() const { return loggedNumber(log(), "started", "frontEndPid"); }

    QTemporaryDir m_dir;
    QProcess *m_engine = nullptr;
    QByteArray m_engineOutput;
    QString m_payload;
};

void tst_E2E::initTestCase()
{
    if (qEnvironmentVariableIsEmpty("DISPLAY"))
        QSKIP("needs an X display");
    QVERIFY(QFileInfo(kBin + "/CorvalenSetup").isExecutable());
    m_payload = makePayload(m_dir.path(), "名字.dat");
    QVERIFY(!m_payload.isEmpty());
}

void tst_E2E::init()
{
    m_engineOutput.clear();
    QFile::remove(m_dir.path() + "/engine.jsonl");
}

void tst_E2E::cleanup()
{
    if (m_engine) {
        const qint64 fe = frontEndPid();
        m_engine->kill();
        m_engine->waitForFinished(5000);
        if (fe > 0) {
            ::kill(static_cast<pid_t>(fe), SIGKILL);
            for (pid_t service : servicesOf(fe))
                ::kill(service, SIGKILL);
        }
        delete m_engine;
        m_engine = nullptr;
    }
    QTest::qWait(200); // the instance lock goes with the process
}

void tst_E2E::startEngine(const QStringList &args)
{
    m_engine = new QProcess;
    m_engine->setProcessChannelMode(QProcess::MergedChannels);
    connect(m_engine, &QProcess::readyRead, [this] { m_engineOutput += m_engine->readAll(); });
    m_engine->start(kBin + "/corvalen-engine",
                    QStringList{"--log", m_dir.path() + "/engine.jsonl", "--payload", m_payload} +
                        args);
    QVERIFY(m_engine->waitForStarted());
}

int tst_E2E::waitEngine(int ms)
{
    QElapsedTimer t;
    t.start();
    while (m_engine->state() != QProcess::NotRunning && t.elapsed() < ms)
        QTest::qWait(50);
    return m_engine->state() == QProcess::NotRunning ? m_engine->exitCode() : -1;
}

void tst_E2E::installByClicks_data()
{
    QTest::addColumn<QString>("mode");
    QTest::newRow("unicode") << "--unicode";
    QTest::newRow("ansi") << "--ansi";
}

void tst_E2E::installByClicks()
{
    QFETCH(QString, mode);
    const QString target = m_dir.path() + "/" + QTest::currentDataTag() + " 目录/Tandemo";
    QDir().mkpath(QFileInfo(target).absolutePath());
    startEngine({mode, "--target", target, "--chunk-kb", "64"});
    QString main;
    QTRY_VERIFY_WITH_TIMEOUT(!(main = visibleWindow(kMainFolded)).isEmpty(), 15000);
    QTRY_VERIFY(frontEndLog().contains("msg=WM_DISK_SPACE"));
    // The proposal came through the chosen channel and is shown as the engine wrote it.
    QVERIFY(frontEndLog().contains(mode == "--unicode" ? "strInitPath from ipcFile"
                                                       : "strInitPath from Title"));
    clickAt(main, kCheckBox);
    clickAt(main, kInstall);
    QTRY_VERIFY_WITH_TIMEOUT(messages(log(), "out").contains(QString("%1/100").arg(1124)), 20000);
    QTest::qWait(1800); // the completion page follows a second after 100 %
    clickAt(main, kStartup);
    QCOMPARE(waitEngine(), 0);
    QVERIFY(sameTree(m_payload, target));
    QVERIFY(!QFileInfo::exists(target + ".corvalen-partial"));
    const QStringList in = messages(log(), "in");
    QCOMPARE(in.first().section('/', 0, 0), QString("1224"));
    QVERIFY(in.contains("1125/1"));
    QCOMPARE(in.last(), QString("1126/0"));
    QCOMPARE(in.count("1224/" + in.first().section('/', 1)), 1);
    QVERIFY(progressRisesTo100(log()));
    QVERIFY2(!frontEndLog().contains("qt.qpa"), qPrintable(frontEndLog()));
}

void tst_E2E::withoutAgreementUnattended()
{
    const QString target = m_dir.path() + "/unattended/Tandemo";
    QDir().mkpath(m_dir.path() + "/unattended");
    startEngine({"--ansi", "--without-agreement", "--unattended", "--target", target});
    QCOMPARE(waitEngine(), 0);
    QVERIFY(sameTree(m_payload, target));
    const QStringList in = messages(log(), "in");
    QCOMPARE(in, QStringList({in.first(), "1125/1"})); // no click, no agreement
    QVERIFY(in.first().startsWith("1224/"));
    QVERIFY(messages(log(), "out").endsWith("1126/0"));
}

void tst_E2E::browseAnswersAndMissingFolder()
{
    // Drives the real folder dialog: unfold, "浏览", type the folder, Enter.
    const QString proposed = m_dir.path() + "/browse/Tandemo";
    const QString chosen = m_dir.path() + "/browse-other";
    QDir().mkpath(m_dir.path() + "/browse");
    QDir().mkpath(chosen);
    startEngine({"--target", proposed});
    QString main;
    QTRY_VERIFY_WITH_TIMEOUT(!(main = visibleWindow(kMainFolded)).isEmpty(), 15000);
    clickAt(main, kMoreOptions);
    QTRY_VERIFY(!visibleWindow(kMainUnfolded).isEmpty());
    clickAt(main, kBrowse);
    QString dialog;
    QTRY_VERIFY_WITH_TIMEOUT(
        !(dialog = xdotool({"search", "--onlyvisible", "--name", "Open Directory"})).isEmpty(),
        10000);
    dialog = dialog.section('\n', 0, 0);
    xdotool({"windowfocus", "--sync", dialog});
    xdotool({"key", "ctrl+a"});
    xdotool({"type", "--delay", "5", chosen});
    xdotool({"key", "Return"});
    QTRY_VERIFY_WITH_TIMEOUT(messages(log(), "in").contains("1125/0"), 10000);
    QTRY_VERIFY(messages(log(), "out").size() >= 4);
    // The engine read the new folder from the front end's title and answered for it.
    QTRY_VERIFY(frontEndLog().contains("msg=WM_PATH_INFO, wp=0"));
    QStringList out = messages(log(), "out");
    QCOMPARE(out.mid(2, 2), QStringList({"1129/0", "1128/" + out[1].section('/', 1)}));

    // On to the end: the whole conversation in one log, in its order.
    main = visibleWindow(kMainUnfolded);
    clickAt(main, kCheckBox);
    clickAt(main, kInstall);
    QTRY_VERIFY_WITH_TIMEOUT(messages(log(), "out").contains("1124/100"), 20000);
    QTest::qWait(1800);
    clickAt(main, kStartup);
    QCOMPARE(waitEngine(), 0);
    QVERIFY(sameTree(m_payload, chosen + "/Tandemo")); // installed where the user browsed to
    const QStringList in = messages(log(), "in");
    QCOMPARE(in.mid(1), QStringList({"1125/0", "1125/1", "1126/0"}));
    QVERIFY(in.first().startsWith("1224/"));
    out = messages(log(), "out");
    QCOMPARE(out.mid(0, 4).join(' ').count("1129/"), 2);
    QVERIFY(out.at(0) == "1129/1" && out.at(2) == "1129/0");
    QVERIFY(out.at(4).startsWith("1124/"));
    QCOMPARE(out.last(), QString("1124/100"));

    // A folder that does not exist: the engine reports -1 and the install button refuses.
    m_engine->kill();
    m_engine->waitForFinished();
    cleanup();
    init();
    startEngine({"--target", m_dir.path() + "/no/such/place/Tandemo"});
    QTRY_VERIFY_WITH_TIMEOUT(!(main = visibleWindow(kMainFolded)).isEmpty(), 15000);
    QTRY_VERIFY(frontEndLog().contains("msg=WM_DISK_SPACE, wp="));
    QVERIFY(frontEndLog().contains(", lp=-1"));
    clickAt(main, kCheckBox);
    clickAt(main, kInstall);
    QTest::qWait(800);
    QVERIFY(!messages(log(), "in").contains("1125/1"));
}

void tst_E2E::overwriteQuestion_data()
{
    QTest::addColumn<bool>("confirm");
    QTest::newRow("cancel") << false;
    QTest::newRow("confirm") << true;
}

void tst_E2E::overwriteQuestion()
{
    QFETCH(bool, confirm);
    startEngine({"--new-version", "3.0.0.5", "--old-version", "3.0.0.5", "--target",
                 m_dir.path() + "/ow/Tandemo"});
    QString box;
    QTRY_VERIFY_WITH_TIMEOUT(!(box = visibleWindow(kMsgBox)).isEmpty(), 15000);
    clickAt(box, confirm ? kMsgOK : kMsgCancel);
    if (confirm) {
        QTRY_VERIFY_WITH_TIMEOUT(!visibleWindow(kMainFolded).isEmpty(), 10000);
        QTest::qWait(300);
        QCOMPARE(messages(log(), "in").count(), 1);
        QVERIFY(messages(log(), "in").first().startsWith("1224/"));
    } else {
        QCOMPARE(waitEngine(10000), 1);
        QCOMPARE(messages(log(), "in"), QStringList("1127/0"));
        QVERIFY(frontEndLog().contains("send message to window("));
        QCOMPARE(log().last()["frontEndCode"].toInt(), 0);
    }
}

void tst_E2E::higherVersionRefused()
{
    startEngine({"--new-version", "3.0.0.5", "--old-version", "3.1.0.0"});
    QString box;
    QTRY_VERIFY_WITH_TIMEOUT(!(box = visibleWindow(kMsgBox)).isEmpty(), 15000);
    clickAt(box, kMsgSingle);
    QCOMPARE(waitEngine(10000), 1);
    QCOMPARE(messages(log(), "in"), QStringList("1127/0"));
}

void tst_E2E::engineKilledMidway()
{
    startEngine(
        {"--without-agreement", "--chunk-kb", "1", "--target", m_dir.path() + "/k1/Tandemo"});
    QTRY_VERIFY_WITH_TIMEOUT(messages(log(), "in").contains("1125/1"), 15000);
    const qint64 fe = frontEndPid();
    QVERIFY(fe > 0);
    m_engine->kill();
    m_engine->waitForFinished();
    // The watchdog notices within its one-second tick.
    QTRY_VERIFY_WITH_TIMEOUT(processGone(fe), 5000);
}

void tst_E2E::frontEndKilledMidway()
{
    const QString target = m_dir.path() + "/k2/Tandemo";
    startEngine({"--without-agreement", "--chunk-kb", "1", "--target", target});
    QTRY_VERIFY_WITH_TIMEOUT(messages(log(), "in").contains("1125/1"), 15000);
    ::kill(static_cast<pid_t>(frontEndPid()), SIGKILL);
    QCOMPARE(waitEngine(10000), 2);
    QVERIFY(!QFileInfo::exists(target)); // nothing half-installed
    QVERIFY(!QFileInfo::exists(target + ".corvalen-partial"));
}

void tst_E2E::selfTestByClicks()
{
    QProcess fe;
    fe.setProcessChannelMode(QProcess::MergedChannels);
    fe.start(kBin + "/CorvalenSetup", QStringList());
    QVERIFY(fe.waitForStarted());
    QString main;
    QTRY_VERIFY_WITH_TIMEOUT(!(main = visibleWindow(kMainFolded)).isEmpty(), 15000);
    clickAt(main, kCheckBox);
    clickAt(main, kInstall);
    QByteArray output;
    QTRY_VERIFY_WITH_TIMEOUT((output += fe.readAll()).contains("wp=100"), 15000);
    QTest::qWait(1800);
    const QImage shot = QGuiApplication::primaryScreen()->grabWindow(0).toImage();
    const QPoint origin = windowRect(main).topLeft();
    // The start button is up: blue where "安装" was.
    QCOMPARE(QColor(shot.pixel(origin + kStartup + QPoint(-40, -10))).name(), QString("#5998ff"));
    clickAt(main, kStartup);
    QVERIFY(fe.waitForFinished(5000));
    QCOMPARE(fe.exitCode(), 0);
}

void tst_E2E::engineWindowKeptHidden()
{
    startEngine({"--target", m_dir.path() + "/hidden/Tandemo"});
    QTRY_VERIFY_WITH_TIMEOUT(!visibleWindow(kMainFolded).isEmpty(), 15000);
    const QString engineWindow = QString::number(loggedNumber(log(), "started", "window"));
    QVERIFY(engineWindow != "0");
    auto engineVisible = [&] {
        return xdotool({"search", "--onlyvisible", "--name", "^corvalen-engine$"})
            .contains(engineWindow);
    };
    // With the front end stopped the engine's window stays up once mapped...
    const auto fe = static_cast<pid_t>(frontEndPid());
    ::kill(fe, SIGSTOP);
    xdotool({"windowmap", engineWindow});
    QTest::qWait(300);
    QVERIFY(engineVisible());
    // ...and the running front end unmaps it again within its 100 ms timer.
    ::kill(fe, SIGCONT);
    QTRY_VERIFY_WITH_TIMEOUT(!engineVisible(), 1000);
    xdotool({"windowmap", engineWindow});
    QTRY_VERIFY_WITH_TIMEOUT(!engineVisible(), 1000);
}

void tst_E2E::helperServiceRestarted()
{
    startEngine({"--target", m_dir.path() + "/svc/Tandemo"});
    QTRY_VERIFY_WITH_TIMEOUT(frontEndLog().count("CreateProcess(\"TandemoInstSvc.exe\"") == 1,
                             15000);
    const qint64 fe = frontEndPid();
    const QString arguments = QString("%1 %2").arg(fe).arg(m_engine->processId());
    QVERIFY(frontEndLog().contains(
        QString("CreateProcess(\"TandemoInstSvc.exe\", \"%1\") ok, pid=").arg(arguments)));
    const QList<pid_t> services = servicesOf(fe);
    QCOMPARE(services.size(), 1);
    ::kill(services.first(), SIGKILL);
    // A new one within the watchdog's second, with the same arguments.
    QTRY_COMPARE_WITH_TIMEOUT(
        frontEndLog().count(
            QString("CreateProcess(\"TandemoInstSvc.exe\", \"%1\") ok, pid=").arg(arguments)),
        2, 3000);
}

void tst_E2E::startupLog_data()
{
    QTest::addColumn<QStringList>("args");
    QTest::addColumn<QStringList>("lines");
    QTest::newRow("self test") << QStringList()
                               << QStringList(
                                      {"self test: yes", "hIPCWnd= 0", "bDisableChoosePath= false",
                                       "bWithoutAgreement= false", "strVersionNew= \"3.0.0.5\"",
                                       "strVersionOld= \"0.0.0.0\"", "iInstallerProcId= 0",
                                       "strIPCFilePath= \"\"", "bIsUnicodeNsis= false"});
    QTest::newRow("engine arguments")
        << QStringList({"0x10", "1", "true", "", "3.0.0.5", "12", "/tmp/f", "1"})
        << QStringList({"self test: no", "hIPCWnd= 0", "bDisableChoosePath= true",
                        "bWithoutAgreement= false", "strVersionNew= \"\"",
                        "strVersionOld= \"3.0.0.5\"", "iInstallerProcId= 12",
                        "strIPCFilePath= \"/tmp/f\"", "bIsUnicodeNsis= true"});
}

void tst_E2E::startupLog()
{
    QFETCH(QStringList, args);
    QFETCH(QStringList, lines);
    QProcess fe;
    fe.setProcessChannelMode(QProcess::MergedChannels);
    fe.start(kBin + "/CorvalenSetup", args);
    QVERIFY(fe.waitForStarted());
    // Whether id 12 is alive here depends on the machine, so the run is simply stopped.
    if (!fe.waitForFinished(2000))
        fe.kill();
    fe.waitForFinished();
    QStringList seen;
    for (const QString &line : QString::fromUtf8(fe.readAll()).split('\n'))
        if (lines.contains(line.trimmed()))
            seen << line.trimmed();
    QCOMPARE(seen, lines);
}

void tst_E2E::secondInstance()
{
    QProcess first;
    first.start(kBin + "/CorvalenSetup", QStringList());
    QVERIFY(first.waitForStarted());
    QTRY_VERIFY_WITH_TIMEOUT(!visibleWindow(kMainFolded).isEmpty(), 15000);
    QProcess second;
    second.setProcessChannelMode(QProcess::MergedChannels);
    second.start(kBin + "/CorvalenSetup", {"0", "0", "0", "3.0.0.5", "0.0.0.0", "1"});
    QVERIFY(second.waitForFinished(10000));
    QCOMPARE(second.exitCode(), 0);
    const QString output = QString::fromUtf8(second.readAll());
    QVERIFY(output.contains("one instance already exists, exit"));
    QVERIFY(!output.contains("self test:")); // nothing after the guard
    // The lock goes with its holder, even killed.
    first.kill();
    first.waitForFinished();
    QProcess third;
    third.setProcessChannelMode(QProcess::MergedChannels);
    third.start(kBin + "/CorvalenSetup", QStringList());
    QVERIFY(third.waitForStarted());
    QByteArray thirdOutput;
    QTRY_VERIFY_WITH_TIMEOUT((thirdOutput += third.readAll()).contains("self test: yes"), 10000);
    third.kill();
    third.waitForFinished();
}

void tst_E2E::runningApplicationClosed()
{
    // Real processes under the suite's names, made from a small sleeper.
    QList<QProcess *> apps;
    for (const char *name : {"Tandemo.exe", "Skeinpad.exe"}) {
        const QString copy = m_dir.path() + "/" + QString(name);
        QFile::remove(copy);
        QVERIFY(QFile::copy(kBin + "/os_sleeper", copy));
        QFile::setPermissions(copy, QFile::ExeOwner | QFile::ReadOwner);
        auto *p = new QProcess(this);
        p->start(copy, {"60"});
        QVERIFY(p->waitForStarted());
        apps << p;
    }
    QProcess fe;
    fe.setProcessChannelMode(QProcess::MergedChannels);
    fe.start(kBin + "/CorvalenSetup", QStringList());
    QString main;
    QTRY_VERIFY_WITH_TIMEOUT(!(main = visibleWindow(kMainFolded)).isEmpty(), 15000);
    clickAt(main, kCheckBox);
    clickAt(main, kInstall);
    QString box;
    QTRY_VERIFY_WITH_TIMEOUT(!(box = visibleWindow(kMsgBox)).isEmpty(), 10000);
    clickAt(box, kMsgCancel);
    QTest::qWait(500);
    QVERIFY(apps[0]->state() == QProcess::Running && apps[1]->state() == QProcess::Running);
    clickAt(main, kInstall);
    QTRY_VERIFY_WITH_TIMEOUT(!(box = visibleWindow(kMsgBox)).isEmpty(), 10000);
    clickAt(box, kMsgOK);
    QTRY_VERIFY_WITH_TIMEOUT(apps[0]->state() == QProcess::NotRunning, 5000);
    QTRY_VERIFY(apps[1]->state() == QProcess::NotRunning);
    QByteArray output;
    QTRY_VERIFY_WITH_TIMEOUT((output += fe.readAll()).contains("msg=WM_MYPROGRESS, wp=10,"), 10000);
    fe.kill();
    fe.waitForFinished();
    qDeleteAll(apps);
}

QTEST_MAIN(tst_E2E)
#include "tst_e2e.moc"
