#include <QtTest>

#include "app/global.h"
#include "fakeplatform.h"
#include "ipc/ipcmessages.h"
#include "kit/mymsgbox.h"
#include "loading/versioncompare.h"
#include "loading/widget.h"
#include "logcapture.h"
#include "mainform/mainform.h"
#include "modalanswer.h"

#include <QGraphicsEffect>
#include <QLabel>
#include <QPushButton>

Q_DECLARE_METATYPE(std::optional<int>)

namespace {

int postsOf(const FakePlatform &fake, std::uint32_t msg)
{
    return static_cast<int>(
        std::count_if(fake.posted.begin(), fake.posted.end(),
                      [msg](const os::NativeMessage &m) { return m.message == msg; }));
}

} // namespace

class tst_VersionGate : public QObject
{
    Q_OBJECT

private slots:
    void init();
    void compare_data();
    void compare();
    void proceedWithoutQuestion();
    void outcomes_data();
    void outcomes();
    void firstLookAndAnimation();
    void serviceAndWatchdog();
    void selfTestHasNoWatchdog();

private:
    FakePlatform m_fake;
};

void tst_VersionGate::init()
{
    m_fake = FakePlatform();
    os::setPlatform(&m_fake);
    Global::SetSelfTest(false);
    Global::SetIPCWnd(0x600001);
    Global::SetWithoutAgreement(false);
    Global::SetInstallerProcId(640);
    m_fake.processes = {{640, "corvalen-engine"}};
}

void tst_VersionGate::compare_data()
{
    QTest::addColumn<QString>("newVersion");
    QTest::addColumn<QString>("oldVersion");
    QTest::addColumn<std::optional<int>>("result");
    const std::optional<int> none;
    QTest::newRow("nothing installed") << "3.0.0.5"
                                       << "0.0.0.0" << std::optional<int>(1);
    QTest::newRow("same") << "3.0.0.5"
                          << "3.0.0.5" << std::optional<int>(0);
    QTest::newRow("installed higher") << "3.0.0.5"
                                      << "3.1.0.0" << std::optional<int>(-1);
    QTest::newRow("numeric, not text") << "3.0.0.10"
                                       << "3.0.0.9" << std::optional<int>(1);
    QTest::newRow("leading zero") << "3.0.0.05"
                                  << "3.0.0.5" << std::optional<int>(0);
    QTest::newRow("three parts") << "3.0.0"
                                 << "0.0.0.0" << none;
    QTest::newRow("five parts") << "3.0.0.5.1"
                                << "3.0.0.5" << none;
    QTest::newRow("old three parts") << "3.0.0.5"
                                     << "3.0.0" << none;
    QTest::newRow("unparsable part reached") << "3.0.0.5"
                                             << "3.0.0.x" << none;
    QTest::newRow("unparsable part never reached") << "2.0.0.0"
                                                   << "3.0.0.x" << std::optional<int>(-1);
    QTest::newRow("zeros") << "0.0.0.0"
                           << "0.0.0.0" << std::optional<int>(0);
    QTest::newRow("first difference decides") << "4.0.0.0"
                                              << "3.9.9.9" << std::optional<int>(1);
    QTest::newRow("empty new") << ""
                               << "0.0.0.0" << none;
    QTest::newRow("empty parts") << "3..0.5"
                                 << "3.0.0.5" << none;
    QTest::newRow("out of range") << "3.0.0.99999999999"
                                  << "3.0.0.5" << none;
    QTest::newRow("negative parts") << "3.0.0.-1"
                                    << "3.0.0.0" << std::optional<int>(-1);
    QTest::newRow("spaces are tolerated by toInt") << "3.0.0. 6"
                                                   << "3.0.0.5" << std::optional<int>(1);
}

void tst_VersionGate::compare()
{
    QFETCH(QString, newVersion);
    QFETCH(QString, oldVersion);
    QFETCH(std::optional<int>, result);
    QCOMPARE(compareVersions(newVersion, oldVersion), result);
}

void tst_VersionGate::proceedWithoutQuestion()
{
    Global::SetVersionNew("3.0.0.5");
    Global::SetVersionOld("0.0.0.0");
    Widget w;
    w.init();
    QTRY_COMPARE(postsOf(m_fake, WM_IPC_HWND), 1);
    QCOMPARE(postsOf(m_fake, WM_CANCEL_INSTALL), 0);
    QTRY_VERIFY(w.isHidden()); // handed over at 100 %
    QTest::qWait(200);
    QCOMPARE(postsOf(m_fake, WM_IPC_HWND), 1); // exactly once
    const auto topLevels = QApplication::topLevelWidgets();
    QVERIFY(std::any_of(topLevels.begin(), topLevels.end(),
                        [](QWidget *t) { return qobject_cast<MainForm *>(t) && t->isVisible(); }));
}

void tst_VersionGate::outcomes_data()
{
    QTest::addColumn<QString>("newVersion");
    QTest::addColumn<QString>("oldVersion");
    QTest::addColumn<QString>("answer");
    QTest::addColumn<QString>("question");
    QTest::addColumn<bool>("proceeds");
    const QString overwrite = "该版本已安装，继续安装会覆盖原先的版本，是否继续安装？";
    QTest::newRow("same, confirmed") << "3.0.0.5"
                                     << "3.0.0.5"
                                     << "btnOK" << overwrite << true;
    QTest::newRow("same, cancelled") << "3.0.0.5"
                                     << "3.0.0.5"
                                     << "btnCancel" << overwrite << false;
    QTest::newRow("same, closed") << "3.0.0.5"
                                  << "3.0.0.5"
                                  << "btnClose" << overwrite << false;
    QTest::newRow("same, escape") << "0.0.0.0"
                                  << "0.0.0.0"
                                  << "" << overwrite << false;
    QTest::newRow("higher installed, confirm still refuses")
        << "3.0.0.5"
        << "3.1.0.0"
        << "btnOK"
        << "已安装高版本V3.1.0.0，如果要安装当前版本，请先卸载高版本。" << false;
}

void tst_VersionGate::outcomes()
{
    QFETCH(QString, newVersion);
    QFETCH(QString, oldVersion);
    QFETCH(QString, answer);
    QFETCH(QString, question);
    QFETCH(bool, proceeds);
    Global::SetVersionNew(newVersion);
    Global::SetVersionOld(oldVersion);
    Widget w;
    w.init();
    QString asked;
    answerNextBox(answer, &asked);
    bool quitRequested = false;
    QTimer fallback;
    connect(&fallback, &QTimer::timeout, [] { QCoreApplication::exit(3); });
    fallback.start(5000);
    // A refusal ends the loop through quitLater; a proceed does not, so stop it ourselves.
    QTimer stop; // scoped: must not fire into the next row's loop
    stop.setSingleShot(true);
    connect(&stop, &QTimer::timeout, [] { QCoreApplication::exit(2); });
    stop.start(2500);
    quitRequested = QCoreApplication::exec() == 0;
    QCOMPARE(asked, question);
    QCOMPARE(quitRequested, !proceeds);
    QCOMPARE(postsOf(m_fake, WM_IPC_HWND), proceeds ? 1 : 0);
    QCOMPARE(postsOf(m_fake, WM_CANCEL_INSTALL), proceeds ? 0 : 1);
    if (!proceeds) {
        // The loading window keeps its first look.
        QCOMPARE(w.size(), QSize(400, 120));
        QCOMPARE(w.findChild<QLabel *>("lblProgress")->text(), QString("进度：30%"));
    }
}

void tst_VersionGate::firstLookAndAnimation()
{
    Global::SetVersionNew("3.0.0.5");
    Global::SetVersionOld("0.0.0.0");
    Widget w;
    QVERIFY(w.isHidden());
    QCOMPARE(w.windowFlags(), Qt::WindowFlags(Qt::FramelessWindowHint | Qt::Window));
    QVERIFY(w.testAttribute(Qt::WA_TranslucentBackground));
    auto *progress = w.findChild<QLabel *>("lblProgress");
    QCOMPARE(progress->text(), QString("进度：30%"));
    QCOMPARE(w.findChild<QLabel *>("label")->text(), QString("请等待，正在加载应用安装程序…"));
    w.init();
    QVERIFY(w.isVisible());
    QCOMPARE(w.size(), QSize(400, 120));

    QStringList seen;
    QTimer sampler;
    connect(&sampler, &QTimer::timeout, [&] {
        if (seen.isEmpty() || seen.last() != progress->text())
            seen << progress->text();
    });
    sampler.start(5);
    QTRY_VERIFY(w.isHidden());
    sampler.stop();
    QCOMPARE(w.size(), QSize(416, 136));
    QCOMPARE(w.findChild<QFrame *>("frame")->geometry(), QRect(8, 8, 400, 120));
    QCOMPARE(seen.count("进度：100%"), 1);
    QCOMPARE(seen.last(), QString("进度：100%"));
    QCOMPARE(progressText(40), QString("进度：40%"));
    // The backing frame: the one QFrame child that is not the form's frame.
    const auto frames = w.findChildren<QFrame *>(QString(), Qt::FindDirectChildrenOnly);
    QFrame *backing = nullptr;
    for (QFrame *f : frames)
        if (f->objectName() != "frame")
            backing = f;
    QVERIFY(backing);
    QCOMPARE(backing->geometry(), QRect(8, 8, 400, 119));
    // Never shown again: no native window left behind, no shadow kept.
    QVERIFY(!w.windowHandle());
    QVERIFY(!backing->graphicsEffect()->isEnabled());
}

void tst_VersionGate::serviceAndWatchdog()
{
    Global::SetVersionNew("3.0.0.5");
    Global::SetVersionOld("0.0.0.0");
    m_fake.ownId = 812;
    m_fake.nextProcessHandle = 50;
    m_fake.nextProcessId = 900;
    LogCapture log;
    Widget w;
    w.startInstSvc(640);
    QCOMPARE(m_fake.started.back(), std::string("TandemoInstSvc.exe 812 640"));
    QVERIFY(log.contains("CreateProcess(\"TandemoInstSvc.exe\", \"812 640\") ok, pid=900"));
    w.init();
    // Service ends: started again on the next tick with the same arguments.
    m_fake.endedProcesses = {50};
    QTRY_COMPARE_WITH_TIMEOUT(m_fake.started.size(), size_t(2), 3000);
    QCOMPARE(m_fake.started.back(), std::string("TandemoInstSvc.exe 812 640"));
    QVERIFY(log.contains("CreateProcess(\"TandemoInstSvc.exe\", \"812 640\") ok, pid=901"));
    // A start that fails is logged and retried.
    m_fake.nextProcessHandle = 0;
    m_fake.endedProcesses = {51};
    QTRY_VERIFY_WITH_TIMEOUT(
        log.contains("CreateProcess(\"TandemoInstSvc.exe\", \"812 640\") fail"), 3000);
    // The engine goes away: the loop ends with 0.
    m_fake.processes.clear();
    QTimer fallback;
    connect(&fallback, &QTimer::timeout, [] { QCoreApplication::exit(3); });
    fallback.start(5000);
    QCOMPARE(QCoreApplication::exec(), 0);
    QVERIFY(log.contains("Installer(pid=640) not exists, exit"));
}

void tst_VersionGate::selfTestHasNoWatchdog()
{
    Global::SetSelfTest(true);
    Global::SetIPCWnd(0);
    Global::SetInstallerProcId(0);
    Global::SetVersionNew("3.0.0.5");
    Global::SetVersionOld("0.0.0.0");
    LogCapture log;
    Widget w;
    w.startInstSvc(0);
    w.init();
    QTest::qWait(1500);
    QCOMPARE(m_fake.started.size(), size_t(1)); // once, never restarted
    QCOMPARE(m_fake.started.front(), std::string("TandemoInstSvc.exe 812 0"));
    QVERIFY(!log.contains("Installer(pid=0) not exists, exit"));
    QVERIFY(m_fake.snapshotOk);
    Global::SetSelfTest(false);
}

QTEST_MAIN(tst_VersionGate)
#include "tst_versiongate.moc"
