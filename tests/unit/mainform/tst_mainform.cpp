// The main window's decisions: install refusals, the running-application check, progress,
// leaving; on a fake platform with the engine's messages fed in directly.
#include <QtTest>

#include "app/global.h"
#include "fakeplatform.h"
#include "ipc/ipcmessages.h"
#include "ipc/ipcmform.h"
#include "kit/toast.h"
#include "mainform/installlogic.h"
#include "mainform/mainform.h"
#include "uitest.h"

#include <QDesktopServices>
#include <QLineEdit>
#include <QThreadPool>

struct Refusal
{
    bool ticked;
    int available;
    uint required;
    bool writable;
    QString notice;
};
Q_DECLARE_METATYPE(Refusal)
Q_DECLARE_METATYPE(std::vector<os::ProcessId>)

namespace {

QString toastText()
{
    for (QWidget *w : QApplication::topLevelWidgets())
        if (qobject_cast<Toast *>(w) && w->isVisible())
            return child<QLabel>(w, "label")->text();
    return QString();
}

class UrlCatcher : public QObject
{
    Q_OBJECT
public:
    QList<QUrl> urls;
public slots:
    void open(const QUrl &url) { urls << url; }
};

} // namespace

class tst_MainForm : public QObject
{
    Q_OBJECT

    FakePlatform m_fake;
    IPCmForm *m_ipc = nullptr;

    // Linked, shown, a writable folder with room: 安装 passes its checks once ticked.
    void prepare(MainForm &form, bool ticked = true)
    {
        form.setIPCForm(m_ipc);
        form.show();
        form.setInstallPath("D:\\x\\Tandemo", true);
        form.setDiskSpace(1500, 10000);
        if (ticked)
            child<QPushButton>(&form, "btnChkbox")->click();
    }
    static bool installing(MainForm &form) { return child(&form, "lblInstalling")->isVisible(); }
    QList<uint> sent() const
    {
        QList<uint> out;
        for (const os::NativeMessage &m : m_fake.posted)
            out << m.message;
        return out;
    }

private slots:
    void init()
    {
        engineRun(m_fake);
        m_ipc = new IPCmForm;
    }
    void cleanup()
    {
        delete m_ipc;
        os::setPlatform(nullptr);
    }

    void installLogic()
    {
        const std::pair<QString, QString> paths[] = {
            {"C:/", "C:\\Tandemo"},
            {"D:/Apps/", "D:\\Apps\\Tandemo"},
            {"//server/share", "\\server\\share\\Tandemo"}, // no doubled separator
            {"D:////////////////x", "D:\\\\x\\Tandemo"}};   // three passes only
        for (const auto &[chosen, path] : paths)
            QCOMPARE(InstallLogic::browsedInstallPath(chosen), path);
        const std::pair<int, int> widths[] = {
            {4, 16},        {5, 19},       {99, 376},          {100, 380},
            {-5651475, 16}, {INT_MIN, 16}, {6000000, 22800000}};
        for (const auto &[progress, width] : widths)
            QCOMPARE(InstallLogic::progressBarWidth(380, progress), width);
    }

    void refusals_data()
    {
        QTest::addColumn<Refusal>("row");
        const QString agreement = "请选阅读并同意《服务协议》和《隐私政策》";
        const QString missing = "发生意外。您选择的目录[D:\\x\\Tandemo]不存在，请重试。";
        const QString space = "磁盘空间不足。请先清理磁盘，或选择另一个磁盘。";
        const QString permission = "您选择的安装目录没有写权限，请选择其他安装目录。";
        // Every combination of the four conditions: the first failing check in order wins.
        for (int mask = 0; mask < 16; ++mask) {
            const bool unticked = mask & 1, absent = mask & 2, full = mask & 4, readOnly = mask & 8;
            QTest::addRow("%s%s%s%s", unticked ? "unticked " : "", absent ? "missing " : "",
                          full ? "full " : "", readOnly ? "read-only" : "")
                << Refusal{!unticked,
                           absent ? -1
                           : full ? 1500
                                  : 10000,
                           1500, !readOnly,
                           unticked ? agreement
                           : absent ? missing
                           : full   ? space
                                    : (readOnly ? permission : QString())};
        }
        QTest::newRow("no figures yet") << Refusal{true, 0, 0, true, space};
        QTest::newRow("compared unsigned") << Refusal{true, 10000, 4294967295u, true, space};
    }
    void refusals()
    {
        QFETCH(Refusal, row);
        MainForm form;
        prepare(form, row.ticked);
        form.setInstallPath("D:\\x\\Tandemo", row.writable);
        form.setDiskSpace(row.required, -1); // missing, until the next report says otherwise
        form.setDiskSpace(row.required, row.available);
        child<QPushButton>(&form, "btnInstall")->click();
        if (row.notice.isEmpty())
            QTRY_VERIFY(installing(form));
        QTest::qWait(50);
        QCOMPARE(toastText(), row.notice.isEmpty() ? missing(form) : row.notice);
        QCOMPARE(sent(), row.notice.isEmpty() ? QList<uint>{WM_INSTALL_PATH} : QList<uint>{});
        QCOMPARE(installing(form), row.notice.isEmpty());
    }

    void runningApplication_data()
    {
        QTest::addColumn<QString>("answer"); // "-": unattended, no question
        QTest::addColumn<std::vector<os::ProcessId>>("killed");
        QTest::newRow("declined") << "btnCancel" << std::vector<os::ProcessId>{};
        QTest::newRow("box closed") << "btnClose" << std::vector<os::ProcessId>{};
        // One of each name, in the suite's order; the first in snapshot order of "Tandemo.exe".
        QTest::newRow("agreed") << "btnOK" << std::vector<os::ProcessId>{1, 2, 6, 5, 4};
        QTest::newRow("unattended: the same unasked")
            << "-" << std::vector<os::ProcessId>{1, 2, 6, 5, 4};
    }
    void runningApplication()
    {
        QFETCH(QString, answer);
        QFETCH(std::vector<os::ProcessId>, killed);
        const bool starts = !killed.empty();
        m_fake.processes = {{5, "Ferrilog.exe"}, {1, "tandemo.exe"},    {2, "Skeinpad.exe"},
                            {3, "Tandemo.exe"},  {4, "TandemoSvc.exe"}, {6, "Lumaslate.exe"}};
        MainForm form;
        prepare(form, answer != "-");
        QString asked;
        if (answer == "-") {
            form.startInstallWithoutAgreement();
        } else {
            answerNextBox(answer, &asked);
            child<QPushButton>(&form, "btnInstall")->click();
            QTRY_COMPARE(asked, QString("系统正在运行，是否关闭应用后继续安装？"));
        }
        QTest::qWait(50);
        QCOMPARE(m_fake.terminated, killed);
        QCOMPARE(sent(), starts ? QList<uint>{WM_INSTALL_PATH} : QList<uint>{});
        QCOMPARE(installing(form), starts);
    }

    void checkMeetsCloseQuestion_data()
    {
        QTest::addColumn<QString>("answer");
        QTest::addColumn<bool>("starts");
        QTest::newRow("stays: the held result starts the install") << "btnCancel" << true;
        QTest::newRow("quits: the held result is dropped") << "btnOK" << false;
    }
    void checkMeetsCloseQuestion()
    {
        QFETCH(QString, answer);
        QFETCH(bool, starts);
        m_fake.processes = {{2, "Skeinpad.exe"}};
        MainForm form;
        prepare(form);
        // The check ends inside the close question's loop; quitting ends the outer loop a
        // second later, staying is ended here.
        bool installedBehindQuestion = true;
        QTimer::singleShot(0, [&] {
            child<QPushButton>(&form, "btnInstall")->click();
            QTimer::singleShot(0, [&] {
                QThreadPool::globalInstance()->waitForDone();
                QTest::qWait(50);
                installedBehindQuestion = installing(form) || !m_fake.posted.empty();
                child<QPushButton>(QApplication::activeModalWidget(), qPrintable(answer))->click();
            });
            child<QPushButton>(&form, "btnClose")->click();
            if (starts)
                QCoreApplication::exit(0);
        });
        QCOMPARE(execBounded(), 0);
        QVERIFY(!installedBehindQuestion);
        QTest::qWait(50);
        QCOMPARE(installing(form), starts);
        QCOMPARE(sent(), QList<uint>{starts ? WM_INSTALL_PATH : WM_CANCEL_INSTALL});
    }

    void destructionWaitsForEveryCheck()
    {
        {
            MainForm form;
            prepare(form);
            m_fake.snapshotDelayMs.value = 600;
            child<QPushButton>(&form, "btnInstall")->click();
            QTRY_COMPARE(m_fake.snapshotCalls.value.load(), 1);
            m_fake.snapshotDelayMs.value = 0;
            child<QPushButton>(&form, "btnInstall")->click(); // supersedes the slow check
        }
        QCOMPARE(m_fake.snapshotsDone.value.load(), 2); // the superseded slow one too
    }

    void diskSpaceReport()
    {
        MainForm form;
        prepare(form, false);
        form.setDiskSpace(4294967295u, -1);
        QCOMPARE(child<QLabel>(&form, "lblSpace")->text(),
                 QString("所需空间：4294967295MB 可用空间：-1MB"));
        QCOMPARE(toastText(), missing(form));
        QTest::qWait(2000); // up for three seconds
        QVERIFY(!toastText().isEmpty());
        QTRY_VERIFY_WITH_TIMEOUT(toastText().isEmpty(), 8000);
        form.setInstallPath(QString(), false); // an empty path leaves the field as it is
        QCOMPARE(child<QLineEdit>(&form, "txtPath")->text(), QString("D:\\x\\Tandemo"));
    }

    void progressAndCompletion()
    {
        MainForm form;
        prepare(form, false);
        form.setProgress(60); // not installing yet: ignored
        form.startInstallWithoutAgreement();
        auto *fg = child(&form, "lblProgressFg");
        QTest::qWait(250);
        QCOMPARE(fg->width(), 16);
        form.setProgress(99);
        QTRY_COMPARE(fg->width(), 376);
        QTest::qWait(300);
        QVERIFY(fg->isVisible()); // 99 stays on the installing page
        QElapsedTimer clock;
        clock.start();
        form.setProgress(150); // stored as 100
        QTRY_COMPARE(fg->width(), 380);
        QTRY_VERIFY_WITH_TIMEOUT(child(&form, "btnStartup")->isVisible(), 5000);
        QVERIFY(clock.elapsed() >= 900); // the full bar stays up for a second
        form.setProgress(10);            // completed: ignored
        QTest::qWait(250);
        QVERIFY(child(&form, "btnStartup")->isVisible());
    }

    void leaving_data()
    {
        QTest::addColumn<bool>("completed");
        QTest::addColumn<QString>("button");
        QTest::addColumn<QList<uint>>("posted");
        QTest::newRow("close confirmed") << false << "btnClose" << QList<uint>{WM_CANCEL_INSTALL};
        QTest::newRow("close when completed: no question") << true << "btnClose" << QList<uint>{};
        QTest::newRow("start using") << true << "btnStartup" << QList<uint>{WM_COMPLETE_INSTALL};
    }
    void leaving()
    {
        QFETCH(bool, completed);
        QFETCH(QString, button);
        QFETCH(QList<uint>, posted);
        MainForm form;
        prepare(form, false);
        if (completed) {
            form.startInstallWithoutAgreement();
            form.setProgress(100);
            QTRY_VERIFY_WITH_TIMEOUT(child(&form, "btnStartup")->isVisible(), 5000);
            m_fake.posted.clear();
        } else {
            QString asked; // cancelled and Escape first: asked again, the window stays
            answerNextBox("btnCancel", &asked);
            QTest::keyClick(&form, Qt::Key_Escape);
            QCOMPARE(asked, QString("确定退出安装吗？"));
            QVERIFY(form.isVisible());
            answerNextBox("btnOK");
        }
        QElapsedTimer clock;
        QTimer::singleShot(0, [&] {
            clock.start();
            child<QPushButton>(&form, qPrintable(button))->click();
        });
        QCOMPARE(execBounded(), 0);
        // The engine gets a second to read its message.
        QCOMPARE(clock.elapsed() >= 900, !posted.isEmpty());
        QCOMPARE(sent(), posted);
    }

    void agreementLinks()
    {
        UrlCatcher catcher;
        QDesktopServices::setUrlHandler("https", &catcher, "open");
        MainForm form;
        child<QPushButton>(&form, "btnService")->click();
        child<QPushButton>(&form, "btnPrivate")->click();
        QDesktopServices::unsetUrlHandler("https");
        QCOMPARE(catcher.urls.size(), 2);
        QCOMPARE(catcher.urls[0].query(), QString("hideHeader=1&h5Preset=PC"));
        QCOMPARE(catcher.urls[0].fragment() + catcher.urls[1].fragment(), QString("263199"));
        QCOMPARE(catcher.urls[0].adjusted(QUrl::RemoveFragment),
                 catcher.urls[1].adjusted(QUrl::RemoveFragment));
    }

private:
    static QString missing(MainForm &form)
    {
        return "发生意外。您选择的目录[" + child<QLineEdit>(&form, "txtPath")->text() +
               "]不存在，请重试。";
    }
};

QTEST_MAIN(tst_MainForm)
#include "tst_mainform.moc"
