// The loading window: version gate, animation, helper service and installer watchdog.
#include <QtTest>

#include "app/global.h"
#include "fakeplatform.h"
#include "ipc/ipcmessages.h"
#include "loading/versioncompare.h"
#include "loading/widget.h"
#include "logcapture.h"
#include "mainform/mainform.h"
#include "uitest.h"

#include <QAbstractEventDispatcher>
#include <QGraphicsEffect>

namespace {

int postsOf(const FakePlatform &fake, std::uint32_t msg)
{
    return int(std::count_if(fake.posted.begin(), fake.posted.end(),
                             [msg](const os::NativeMessage &m) { return m.message == msg; }));
}

bool mainFormShown()
{
    const auto all = QApplication::topLevelWidgets();
    return std::any_of(all.begin(), all.end(),
                       [](QWidget *t) { return qobject_cast<MainForm *>(t) && t->isVisible(); });
}

// The label as each animation tick finds it, and the window's own timers at the first one.
struct TickLog : QObject
{
    QLabel *label = nullptr;
    QStringList seen;
    QList<QAbstractEventDispatcher::TimerInfo> timers;
    bool eventFilter(QObject *watched, QEvent *e) override
    {
        if (e->type() == QEvent::Timer) {
            if (seen.isEmpty())
                timers = QAbstractEventDispatcher::instance()->registeredTimers(watched);
            seen << label->text();
        }
        return false;
    }
};

} // namespace

class tst_VersionGate : public QObject
{
    Q_OBJECT

private slots:
    void init()
    {
        engineRun(m_fake);
        Global::SetWithoutAgreement(false);
        Global::SetInstallerProcId(640);
        Global::SetVersionNew("3.0.0.5");
        Global::SetVersionOld("0.0.0.0");
        m_fake.processes = {{640, "corvalen-engine"}};
    }

    void compare()
    {
        const std::optional<int> none, newer(1), same(0), older(-1);
        const std::tuple<QString, QString, std::optional<int>> rows[] = {
            {"3.0.0.10", "3.0.0.9", newer}, // numbers, not text
            {"3.0.0.05", "3.0.0.5", same},
            {"4.0.0.0", "3.9.9.9", newer}, // the first difference decides
            {"3.0.0.5", "3.1.0.0", older},
            {"3.0.0", "0.0.0.0", none},
            {"3.0.0.5", "3.0.0.5.1", none},
            {"3.0.0.5", "3.0.0.x", none},
            {"2.0.0.0", "3.0.0.x", older}, // the bad part is never reached
            {"3..0.5", "3.0.0.5", none},
            {"3.0.0.99999999999", "3.0.0.5", none},
            {"3.0.0.-1", "3.0.0.0", older}};
        for (const auto &[newVersion, oldVersion, result] : rows)
            QCOMPARE(compareVersions(newVersion, oldVersion), result);
    }

    void gate_data()
    {
        QTest::addColumn<QString>("oldVersion");
        QTest::addColumn<QString>("answer");
        QTest::addColumn<QString>("question");
        QTest::addColumn<bool>("proceeds");
        const QString overwrite = "该版本已安装，继续安装会覆盖原先的版本，是否继续安装？";
        QTest::newRow("older installed: no question") << "2.9.9.9"
                                                      << ""
                                                      << "" << true;
        QTest::newRow("same, confirmed") << "3.0.0.5"
                                         << "btnOK" << overwrite << true;
        QTest::newRow("same, cancelled") << "3.0.0.5"
                                         << "btnCancel" << overwrite << false;
        QTest::newRow("same, closed") << "3.0.0.5"
                                      << "btnClose" << overwrite << false;
        QTest::newRow("same, escape") << "3.0.0.05"
                                      << "" << overwrite << false;
        QTest::newRow("higher installed, confirm still refuses")
            << "3.1.0.0"
            << "btnOK"
            << "已安装高版本V3.1.0.0，如果要安装当前版本，请先卸载高版本。" << false;
    }

    void gate()
    {
        QFETCH(QString, oldVersion);
        QFETCH(QString, answer);
        QFETCH(QString, question);
        QFETCH(bool, proceeds);
        Global::SetVersionOld(oldVersion);
        Widget w;
        QString asked;
        if (!question.isEmpty())
            answerNextBox(answer, &asked);
        QElapsedTimer clock;
        clock.start();
        w.init();
        if (proceeds) {
            QTRY_VERIFY(w.isHidden()); // handed over at 100 %
            QVERIFY(mainFormShown());
        } else {
            QCOMPARE(execBounded(), 0);
            QVERIFY(clock.elapsed() >= 900); // quits a second after telling the engine
            QVERIFY(w.isVisible());
            QCOMPARE(child<QLabel>(&w, "lblProgress")->text(), QString("进度：30%")); // first look
        }
        QTest::qWait(100);
        QCOMPARE(asked, question);
        QCOMPARE(postsOf(m_fake, WM_IPC_HWND), proceeds ? 1 : 0);
        QCOMPARE(postsOf(m_fake, WM_CANCEL_INSTALL), proceeds ? 0 : 1);
    }

    void animation()
    {
        Widget w;
        TickLog ticks;
        ticks.label = child<QLabel>(&w, "lblProgress");
        w.installEventFilter(&ticks);
        w.init();
        QTRY_VERIFY(w.isHidden());
        QCOMPARE(ticks.seen,
                 QStringList({"进度：0%", "进度：10%", "进度：20%", "进度：30%", "进度：40%",
                              "进度：50%", "进度：60%", "进度：70%", "进度：80%", "进度：90%"}));
        QCOMPARE(ticks.label->text(), QString("进度：100%"));
        QCOMPARE(ticks.timers.size(), 1);
        QCOMPARE(ticks.timers.first().interval, 50);
        QCOMPARE(ticks.timers.first().timerType, Qt::CoarseTimer);
        QVERIFY(mainFormShown());
        // Never shown again: no native window left behind, no shadow kept.
        QVERIFY(!w.windowHandle());
        for (QFrame *f : w.findChildren<QFrame *>())
            QVERIFY(!f->graphicsEffect() || !f->graphicsEffect()->isEnabled());
    }

    void serviceAndWatchdog()
    {
        m_fake.nextProcessHandle = 50;
        m_fake.nextProcessId = 900;
        LogCapture log;
        Widget w;
        w.startInstSvc(640);
        QVERIFY(log.contains("CreateProcess(\"TandemoInstSvc.exe\", \"812 640\") ok, pid=900"));
        w.init();
        // Ended: started again on the next tick with the same arguments.
        m_fake.endedProcesses = {50};
        QTRY_VERIFY_WITH_TIMEOUT(
            log.contains("CreateProcess(\"TandemoInstSvc.exe\", \"812 640\") ok, pid=901"), 3000);
        // A start that fails is logged and tried again on every tick, a second apart.
        m_fake.nextProcessHandle = 0;
        m_fake.endedProcesses = {51};
        QTRY_COMPARE_WITH_TIMEOUT(m_fake.started.size(), size_t(3), 3000);
        QElapsedTimer clock;
        clock.start();
        QTRY_COMPARE_WITH_TIMEOUT(m_fake.started.size(), size_t(5), 6000);
        QVERIFY(clock.elapsed() >= 1800);
        QVERIFY(log.contains("CreateProcess(\"TandemoInstSvc.exe\", \"812 640\") fail"));
        QCOMPARE(m_fake.started.back(), std::string("TandemoInstSvc.exe 812 640"));
        // The engine goes away: the loop ends with 0.
        m_fake.processes.clear();
        QCOMPARE(execBounded(5000), 0);
        QVERIFY(log.contains("Installer(pid=640) not exists, exit"));
    }

    void selfTestHasNoWatchdog()
    {
        Global::SetSelfTest(true);
        Global::SetInstallerProcId(0);
        LogCapture log;
        Widget w;
        w.startInstSvc(0);
        w.init();
        QTest::qWait(1500);
        QCOMPARE(m_fake.started, std::vector<std::string>{"TandemoInstSvc.exe 812 0"}); // once
        QVERIFY(!log.contains("Installer(pid=0) not exists, exit"));
    }

private:
    FakePlatform m_fake;
};

QTEST_MAIN(tst_VersionGate)
#include "tst_versiongate.moc"
