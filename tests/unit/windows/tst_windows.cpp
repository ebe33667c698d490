// The windows on a fake platform, the engine's messages fed in directly: the message window's
// folder proposal, what it sends, receives and logs; the version gate, the animation, the helper
// service and the watchdog; the install button, the running-application check, progress and
// leaving; the keyboard's way through the pages and what a screen reader is told of each control.
#include "widgethelpers.h"

#include "ipc/ipcmessages.h"
#include "ipc/ipcmform.h"
#include "kit/accessibility.h"
#include "kit/focusring.h"
#include "kit/toast.h"
#include "loading/widget.h"
#include "mainform/installlogic.h"
#include "mainform/mainform.h"

#include <xcb/xcb.h>

namespace {

// A posted message as the X server delivers it.
bool deliver(IPCmForm &form, std::uint32_t msg, std::uint64_t wp, std::int64_t lp,
             std::uint32_t type = FakePlatform::atom)
{
    xcb_client_message_event_t e{XCB_CLIENT_MESSAGE | 0x80, 32, 0, 0x80000005u, type, {}};
    const std::uint32_t data[] = {msg, std::uint32_t(wp), std::uint32_t(wp >> 32),
                                  std::uint32_t(lp), std::uint32_t(std::uint64_t(lp) >> 32)};
    std::copy(data, data + 5, e.data.data32);
    long result = 0;
    return form.nativeEvent("xcb_generic_event_t", &e, &result);
}

QString toastText()
{
    return shown<Toast>() ? shown<Toast>()->findChild<QLabel *>()->text() : "";
}

bool installing(QWidget *form)
{
    return child(form, "lblInstalling")->isVisible();
}

// A screen reader's view of a control: role, name, and what of its state matters here.
QString heard(QWidget *control)
{
    QAccessibleInterface *a = QAccessible::queryAccessibleInterface(control);
    const QAccessible::State s = a->state();
    QString text = QString("%1 %2").arg(int(a->role())).arg(a->text(QAccessible::Name));
    if (s.checkable)
        text += s.checked ? " checked" : " unchecked";
    if (s.expandable)
        text += s.expanded ? " expanded" : " collapsed";
    if (QAccessibleValueInterface *value = a->valueInterface())
        text += " " + value->currentValue().toString();
    return text;
}

} // namespace

class tst_Windows : public QObject
{
    Q_OBJECT
    std::optional<FakePlatform> f;
    std::unique_ptr<IPCmForm> ipc;
    QList<QUrl> urls;

    // Linked, shown, a writable folder with room: 安装 passes its checks once ticked.
    std::unique_ptr<MainForm> newForm(bool ticked = true)
    {
        auto form = std::make_unique<MainForm>();
        ipc = std::make_unique<IPCmForm>();
        form->setIPCForm(ipc.get());
        form->show();
        form->setInstallPath("D:\\x\\Tandemo", true);
        form->setDiskSpace(1500, 10000);
        if (ticked)
            child<QPushButton>(form.get(), "btnChkbox")->click();
        f->posted.clear();
        return form;
    }
    // On the page the row names: the choice page, unfolded, while installing, completed.
    std::unique_ptr<MainForm> formOn(const QString &page)
    {
        Global::SetDisableChoosePath(page.contains("browse disabled"));
        auto form = newForm(page.contains("ticked"));
        if (page.startsWith("unfolded"))
            child<QPushButton>(form.get(), "btnMore0")->click();
        if (page == "installing" || page == "completed") {
            form->startInstallWithoutAgreement();
            form->setProgress(page == "installing" ? 50 : 100);
            QWidget *shownLast =
                child(form.get(), page == "installing" ? "lblProgressBg" : "btnStartup");
            (void)QTest::qWaitFor([&] { return shownLast->isVisible(); }, 5000);
            QTest::qWait(150); // the bar's next tick
        }
        QApplication::setActiveWindow(form.get());
        return form;
    }

public slots:
    void open(const QUrl &url) { urls << url; }

private slots:
    void initTestCase()
    {
        FocusRing::installStyle();
        Accessibility::install();
    }
    void init()
    {
        f.emplace();
        f->processes = {{640, "corvalen-engine"}};
        Global::SetSelfTest(false);
        Global::SetIPCWnd(0x600001);
        Global::SetInstallerProcId(640);
        Global::SetVersionNew("3.0.0.5");
        Global::SetVersionOld("0.0.0.0");
        Global::SetDisableChoosePath(false);
    }
    void cleanup() { ipc.reset(); }

    // The file in Unicode mode only, two bytes at least; the title kept as it is.
    void initialPath_data()
    {
        QTest::addColumn<bool>("unicode");
        QTest::addColumn<QByteArray>("file");
        QTest::addColumn<QString>("title");
        QTest::addColumn<QString>("appData");
        QTest::addColumn<QString>("source");
        QTest::addColumn<QString>("path");
        const auto row = [](const char *name, bool unicode, const QByteArray &file,
                            const char *title, const char *appData, const char *source,
                            const QString &path) {
            QTest::newRow(name) << unicode << file << QString(title) << QString(appData)
                                << QString(source) << path;
        };
        const QByteArray utf16("E\0:\0\\\0\x89\x5b\xc5\x88", 10);
        row("Unicode: the file", true, utf16, "D:\\Apps", "", "from ipcFile", "E:\\安装");
        row("ANSI: the title", false, utf16, "D:\\Apps", "", "from Title", "D:\\Apps");
        row("one byte: the title", true, "E", "D:\\x", "", "from Title", "D:\\x");
        row("blanks kept", false, {}, "  D:\\A\\ ", "", "from Title", "  D:\\A\\ ");
        row("APPDATA", false, {}, "", "C:\\A", "default", "C:\\A\\Tandemo");
        row("nothing", false, {}, "", "", "default", "C:\\Tandemo");
    }
    void initialPath()
    {
        QFETCH(bool, unicode);
        QFETCH(QByteArray, file);
        QFETCH(QString, title);
        QFETCH(QString, appData);
        QFETCH(QString, source);
        QFETCH(QString, path);
        QTemporaryDir dir;
        Global::SetIPCFilePath(dir.filePath("ipc.dat"));
        QFile ipc(Global::GetIPCFilePath());
        QVERIFY(ipc.open(QFile::WriteOnly) && ipc.write(file) >= 0 && ipc.flush());
        Global::SetUnicodeNsis(unicode);
        f->titles[0x600001] = title.toStdString();
        f->environment["APPDATA"] = appData.toStdString();
        LogCapture log;
        QCOMPARE(IPCmForm().getInitPath(), path);
        // The debug stream quotes text and escapes its backslashes.
        QCOMPARE(log.lines.first() + '|' + log.lines.last(),
                 QString("bIsUnicodeNsis:  %1|strInitPath %2:  \"%3\"")
                     .arg(unicode ? "true" : "false", source, QString(path).replace("\\", "\\\\")));
    }

    void messages()
    {
        f->titles[0x600001] = "D:\\Apps\\Tandemo";
        Global::SetUnicodeNsis(false);
        IPCmForm form;
        LogCapture log;
        form.sendStartInstall();
        form.sendCancel();
        form.sendStartup();
        form.sendInstallPath("D:\\Apps\\Tandemo");
        f->postOk = false;
        form.sendMsg(WM_IPC_HWND, 0x1234567890ull, -5);
        // Received before the main window is linked: logged, nothing resolved.
        form.setWindowTitle("Form");
        QVERIFY(deliver(form, WM_PATH_INFO, 1, 1));
        QCOMPARE(form.windowTitle(), QString("Form"));
        MainForm main;
        form.setMainForm(&main);
        main.setIPCForm(&form);
        main.move(-201, 600); // the notice is centred on the window as it is when shown
        QVERIFY(deliver(form, WM_PATH_INFO, 1, 1));
        QCOMPARE(form.windowTitle() + child<QLineEdit>(&main, "txtPath")->text(),
                 QString("D:\\Apps\\TandemoD:\\Apps\\Tandemo"));
        QVERIFY(deliver(form, WM_DISK_SPACE, 0x100000000ull | 1500, -1)); // 32 bits each
        QElapsedTimer clock;
        clock.start();
        QCOMPARE(toastText(), InstallLogic::missingFolderNotice("D:\\Apps\\Tandemo"));
        const QSize toast = shown<Toast>()->size();
        QCOMPARE(shown<Toast>()->pos(), QPoint(-201 + (main.width() - toast.width()) / 2,
                                               600 + (main.height() - toast.height()) / 2));
        QCOMPARE(child<QLabel>(&main, "lblSpace")->text(),
                 QString("所需空间：1500MB 可用空间：-1MB"));
        QVERIFY(deliver(form, WM_DISK_SPACE, 4294967295u, 5));
        QCOMPARE(child<QLabel>(&main, "lblSpace")->text(),
                 QString("所需空间：4294967295MB 可用空间：5MB"));
        f->titles[0x600001] = "X:\\other"; // wParam 0: only the writable flag changes
        QVERIFY(deliver(form, WM_PATH_INFO, 0, 0));
        QCOMPARE(child<QLineEdit>(&main, "txtPath")->text(), QString("D:\\Apps\\Tandemo"));
        QVERIFY(deliver(form, WM_MYPROGRESS, 50, 0));
        // Ours but not the front end's: swallowed without a word. Not ours: left to Qt.
        QVERIFY(deliver(form, WM_INSTALL_PATH, 0, 0) && deliver(form, 0x7fff, 0, 0));
        QVERIFY(!deliver(form, WM_MYPROGRESS, 10, 0, FakePlatform::atom + 1));
        Global::SetIPCWnd(0); // no engine window, as in self-test mode
        IPCmForm alone;
        alone.sendCancel();
        const QString sent =
            "IPCmForm::sendMsg: send message to window(%1) %2. msg=%3, wp=%4, lp=%5";
        const QString received = "IPCmForm::nativeEvent: recv message from Installer(hWnd="
                                 "-2147483643), msg=WM_%1, wp=%2, lp=%3";
        const auto got = [&](const char *msg, qint64 wp, int lp) {
            return received.arg(msg).arg(wp).arg(lp);
        };
        const auto ok = [&](int msg, int wp) {
            return sent.arg(6291457).arg("ok").arg(msg).arg(wp).arg(0);
        };
        QCOMPARE(log.lines.filter("IPCmForm::"),
                 QStringList({ok(1125, 1), ok(1127, 0), ok(1126, 0), ok(1125, 0),
                              sent.arg(6291457).arg("fail").arg(1224).arg(78187493520).arg(-5),
                              got("PATH_INFO", 1, 1), got("PATH_INFO", 1, 1),
                              got("DISK_SPACE", 4294968796, -1), got("DISK_SPACE", 4294967295, 5),
                              got("PATH_INFO", 0, 0), got("MYPROGRESS", 50, 0),
                              sent.arg(0).arg("fail").arg(1127).arg(0).arg(0)}));
        // The engine's own window is kept hidden, again and again; the notice is up for three
        // seconds.
        QTest::qWait(2000 - clock.elapsed());
        QVERIFY(!toastText().isEmpty());
        QTRY_VERIFY_WITH_TIMEOUT(toastText().isEmpty(), 8000);
        QVERIFY(f->hidden.size() >= 2 && std::set(f->hidden.begin(), f->hidden.end()) ==
                                             std::set<os::WindowHandle>{0x600001});
        // Completion quits even unlinked, and is not handed on to Qt's X11 handler.
        bool consumed = false;
        QTimer::singleShot(0, [&] { consumed = deliver(alone, WM_COMPLETE_INSTALL, 0, 0); });
        QCOMPARE(execBounded(), 0);
        QVERIFY(consumed);
    }
    void versionGate_data()
    {
        QTest::addColumn<QString>("oldVersion");
        QTest::addColumn<QString>("answer"); // "": Escape
        QTest::addColumn<QString>("question");
        QTest::addColumn<bool>("proceeds");
        const auto row = [](const char *name, const char *old, const char *answer,
                            const QString &question, bool proceeds) {
            QTest::newRow(name) << QString(old) << QString(answer) << question << proceeds;
        };
        const QString overwrite = "该版本已安装，继续安装会覆盖原先的版本，是否继续安装？";
        row("older installed: no question", "2.9.9.9", "", "", true);
        row("same, overwrite", "3.0.0.5", "btnOK", overwrite, true);
        row("same, cancelled", "3.0.0.5", "btnCancel", overwrite, false);
        row("same, closed", "3.0.0.5", "btnClose", overwrite, false);
        row("same, Escape", "3.0.0.05", "", overwrite, false);
        row("newer installed", "3.1.0.0", "btnOK",
            "已安装高版本V3.1.0.0，如果要安装当前版本，请先卸载高版本。", false);
    }
    void versionGate()
    {
        QFETCH(QString, oldVersion);
        QFETCH(QString, answer);
        QFETCH(QString, question);
        QFETCH(bool, proceeds);
        Global::SetVersionOld(oldVersion);
        Widget w;
        QLabel *label = child<QLabel>(&w, "lblProgress");
        QStringList seen; // the label as each tick finds it, the window's timers at the first
        QList<QAbstractEventDispatcher::TimerInfo> timers;
        EventHook hook(&w, [&](QEvent *e) {
            if (e->type() == QEvent::Timer && seen.isEmpty())
                timers = QAbstractEventDispatcher::instance()->registeredTimers(&w);
            if (e->type() == QEvent::Timer)
                seen << label->text().mid(3);
        });
        QString asked;
        if (!question.isEmpty())
            answerNextBox(&w, answer, &asked);
        QElapsedTimer clock;
        clock.start();
        w.init();
        if (proceeds) {
            QTRY_VERIFY(w.isHidden()); // handed over at 100 %
            QCOMPARE(seen.join(' '), QString("0% 10% 20% 30% 40% 50% 60% 70% 80% 90%"));
            QCOMPARE(label->text(), QString("进度：100%"));
            QVERIFY(timers.size() == 1 && timers[0].interval == 50 &&
                    timers[0].timerType == Qt::CoarseTimer);
            // Never shown again: no native window left behind, no shadow kept.
            QVERIFY(!w.windowHandle());
            for (QFrame *frame : w.findChildren<QFrame *>())
                QVERIFY(!frame->graphicsEffect() || !frame->graphicsEffect()->isEnabled());
        } else {
            QCOMPARE(execBounded(), 0);
            QVERIFY(clock.elapsed() >= 900);          // quits a second after telling the engine
            QVERIFY(w.isVisible() && seen.isEmpty()); // never animated
        }
        QTest::qWait(100);
        QCOMPARE(asked, question);
        QCOMPARE(f->sent(), QList<uint>{proceeds ? WM_IPC_HWND : WM_CANCEL_INSTALL});
    }

    void helperServiceAndWatchdog()
    {
        LogCapture log;
        f->nextProcessHandle = 50;
        f->nextProcessId = 900;
        Widget w;
        QVERIFY(!QAccessible::queryAccessibleInterface(&w)->text(QAccessible::Name).isEmpty());
        w.startInstSvc(640);
        const QString start = "CreateProcess(\"TandemoInstSvc.exe\", \"812 640\") ";
        QVERIFY(log.lines.contains(start + "ok, pid=900"));
        w.init();
        QCOMPARE(w.findChild<QTimer *>()->interval(), 1000); // the watchdog's tick
        // Ended: started again on the next tick with the same arguments.
        f->ended = {50};
        QTRY_VERIFY_WITH_TIMEOUT(log.lines.contains(start + "ok, pid=901"), 3000);
        // A start that fails is logged and tried again on every tick, a second apart.
        f->nextProcessHandle = 0;
        f->ended = {51};
        QTRY_COMPARE_WITH_TIMEOUT(f->started.size(), size_t(3), 3000);
        QElapsedTimer clock;
        clock.start();
        QTRY_COMPARE_WITH_TIMEOUT(f->started.size(), size_t(5), 6000);
        QVERIFY(clock.elapsed() >= 1800);
        QVERIFY(log.lines.contains(start + "fail"));
        QCOMPARE(f->started.back(), std::string("TandemoInstSvc.exe 812 640"));
        // The engine goes away: the loop ends with 0.
        f->processes.clear();
        QCOMPARE(execBounded(5000), 0);
        QVERIFY(log.lines.contains("Installer(pid=640) not exists, exit"));
    }

    // A refusal is a notice and nothing sent; once the checks pass the install starts. The
    // order of the checks is tst_logic's.
    void installButton()
    {
        for (const bool ticked : {false, true}) {
            auto form = newForm(ticked);
            child<QPushButton>(form.get(), "btnInstall")->click();
            QTest::qWait(50);
            QTRY_COMPARE(f->sent(), ticked ? QList<uint>{WM_INSTALL_PATH} : QList<uint>{});
            QCOMPARE(shown<Toast>() != nullptr, !ticked);
        }
    }

    // One of each name, in the suite's order; the first in snapshot order of "Tandemo.exe".
    void runningApplication_data()
    {
        QTest::addColumn<QString>("answer"); // "": unattended, nobody asked
        QTest::addColumn<bool>("closed");
        QTest::newRow("cancelled") << "btnCancel" << false;
        QTest::newRow("closed") << "btnClose" << false;
        QTest::newRow("confirmed") << "btnOK" << true;
        QTest::newRow("unattended") << "" << true;
    }
    void runningApplication()
    {
        QFETCH(QString, answer);
        QFETCH(bool, closed);
        f->processes = {{5, "Ferrilog.exe"}, {1, "tandemo.exe"},    {2, "Skeinpad.exe"},
                        {3, "Tandemo.exe"},  {4, "TandemoSvc.exe"}, {6, "Lumaslate.exe"}};
        auto form = newForm(!answer.isEmpty());
        QString asked;
        if (answer.isEmpty()) {
            form->startInstallWithoutAgreement();
        } else {
            answerNextBox(form.get(), answer, &asked);
            child<QPushButton>(form.get(), "btnInstall")->click();
            QTRY_COMPARE(asked, QString("系统正在运行，是否关闭应用后继续安装？"));
        }
        QTest::qWait(50);
        QCOMPARE(f->terminated, closed ? Ids({1, 2, 6, 5, 4}) : Ids());
        QCOMPARE(f->sent(), closed ? QList<uint>{WM_INSTALL_PATH} : QList<uint>{});
    }

    void appCheckAndCloseQuestion()
    {
        // A check that ends inside the close question's loop (asked by Escape or 关闭): staying
        // starts the install with the held result, quitting drops it and ends the outer loop a
        // second later.
        for (const bool starts : {true, false}) {
            f->processes = {{2, "Skeinpad.exe"}};
            auto form = newForm();
            bool installedBehindQuestion = true;
            QString asked;
            QElapsedTimer clock;
            QTimer::singleShot(0, [&] {
                clock.start();
                child<QPushButton>(form.get(), "btnInstall")->click();
                QTimer::singleShot(0, [&] {
                    QThreadPool::globalInstance()->waitForDone();
                    QTest::qWait(50);
                    installedBehindQuestion = installing(form.get()) || !f->posted.empty();
                    QWidget *box = QApplication::activeModalWidget();
                    asked = child<QLabel>(box, "lblLine1")->text();
                    child<QPushButton>(box, starts ? "btnCancel" : "btnOK")->click();
                });
                starts ? QTest::keyClick(form.get(), Qt::Key_Escape)
                       : child<QPushButton>(form.get(), "btnClose")->click();
                if (starts)
                    QCoreApplication::exit(0);
            });
            QCOMPARE(execBounded(), 0);
            QCOMPARE(asked, QString("确定退出安装吗？"));
            QVERIFY(!installedBehindQuestion && (starts || clock.elapsed() >= 900));
            QTest::qWait(50);
            QCOMPARE(installing(form.get()), starts);
            QCOMPARE(f->sent(), QList<uint>{starts ? WM_INSTALL_PATH : WM_CANCEL_INSTALL});
        }
        {
            auto form = newForm();
            f->snapshotCalls = f->snapshotsDone = 0;
            f->snapshotDelayMs = 600;
            child<QPushButton>(form.get(), "btnInstall")->click();
            QTRY_COMPARE(f->snapshotCalls.load(), 1);
            f->snapshotDelayMs = 0;
            child<QPushButton>(form.get(), "btnInstall")->click(); // supersedes the slow check
        }
        QCOMPARE(f->snapshotsDone.load(), 2); // the superseded slow one too
    }

    void progressAndLeaving()
    {
        auto form = newForm(false);
        QDesktopServices::setUrlHandler("https", this, "open");
        child<QPushButton>(form.get(), "btnService")->click();
        child<QPushButton>(form.get(), "btnPrivate")->click();
        QDesktopServices::unsetUrlHandler("https");
        // One page, two places in it.
        QVERIFY(urls.size() == 2 && urls[0] != urls[1]);
        QCOMPARE(urls[0].adjusted(QUrl::RemoveFragment), urls[1].adjusted(QUrl::RemoveFragment));
        form->setProgress(60); // not installing yet: ignored
        form->startInstallWithoutAgreement();
        auto *fg = child(form.get(), "lblProgressFg");
        QTest::qWait(250);
        QCOMPARE(fg->width(), 16);
        form->setProgress(99);
        QTRY_COMPARE(fg->width(), 376);
        QTest::qWait(300);
        QVERIFY(fg->isVisible()); // 99 stays on the installing page
        QElapsedTimer clock;
        clock.start();
        form->setProgress(150); // stored as 100
        QTRY_COMPARE(fg->width(), 380);
        QTRY_VERIFY_WITH_TIMEOUT(child(form.get(), "btnStartup")->isVisible(), 5000);
        QVERIFY(clock.elapsed() >= 900); // the full bar stays up for a second
        // Closing asks nothing now; 开始使用 gives the engine a second to read its message.
        for (const QString button : {"btnClose", "btnStartup"}) {
            f->posted.clear();
            QTimer::singleShot(0, [&] {
                clock.start();
                child<QPushButton>(form.get(), qPrintable(button))->click();
            });
            QCOMPARE(execBounded(), 0);
            QCOMPARE(clock.elapsed() >= 900, button == "btnStartup");
            QCOMPARE(f->sent(),
                     button == "btnStartup" ? QList<uint>{WM_COMPLETE_INSTALL} : QList<uint>{});
        }
    }

    // Tab goes top to bottom, left to right, through what is in sight only, starting where a
    // keyboard user starts: the page's action.
    void focusOrder_data()
    {
        QTest::addColumn<QString>("page");
        QTest::addColumn<QStringList>("order");
        const QStringList choice{"btnInstall", "btnChkbox", "btnService", "btnPrivate", "btnMore0"};
        QTest::newRow("folded") << "folded" << choice + QStringList{"btnClose", "btnInstall"};
        QTest::newRow("unfolded") << "unfolded"
                                  << choice + QStringList{"txtPath", "btnBrowserPath", "btnClose",
                                                          "btnInstall"};
        QTest::newRow("unfolded, browse disabled")
            << "unfolded, browse disabled" << choice + QStringList{"txtPath", "btnClose"};
        QTest::newRow("completed")
            << "completed" << QStringList{"btnStartup", "btnClose", "btnStartup"};
    }
    void focusOrder()
    {
        QFETCH(QString, page);
        QFETCH(QStringList, order);
        auto form = formOn(page);
        QStringList walked{QApplication::focusWidget()->objectName()};
        while (walked.size() < order.size()) {
            QTest::keyClick(QApplication::focusWidget(), Qt::Key_Tab);
            walked << QApplication::focusWidget()->objectName();
        }
        QCOMPARE(walked, order);
    }

    // Each control as a screen reader finds it, in Chinese: role, name, state.
    void accessibility_data()
    {
        QTest::addColumn<QString>("page");
        QTest::addColumn<QString>("control");
        QTest::addColumn<QString>("expected");
        const auto row = [](const char *page, const char *control, QAccessible::Role role,
                            const QString &rest) {
            QTest::newRow(qPrintable(QString(page) + ": " + control))
                << page << control << QString("%1 %2").arg(int(role)).arg(rest);
        };
        row("folded", "btnInstall", QAccessible::Button, "安装");
        const QString agreement = "我已阅读并同意《服务协议》和《隐私政策》";
        row("folded", "btnChkbox", QAccessible::CheckBox, agreement + " unchecked");
        row("folded, ticked", "btnChkbox", QAccessible::CheckBox, agreement + " checked");
        row("folded", "btnService", QAccessible::Link, "服务协议");
        row("folded", "btnMore0", QAccessible::Button, "更多选项 collapsed");
        row("unfolded", "btnMore0", QAccessible::Button, "更多选项 expanded");
        row("unfolded", "txtPath", QAccessible::EditableText, "安装位置");
        row("installing", "lblProgressBg", QAccessible::ProgressBar, "安装进度 50");
        row("completed", "lblInstalling", QAccessible::StaticText, "安装完成");
    }
    void accessibility()
    {
        QFETCH(QString, page);
        QFETCH(QString, control);
        QFETCH(QString, expected);
        auto form = formOn(page);
        QCOMPARE(heard(child(form.get(), qPrintable(control))), expected);
    }
};

QTEST_MAIN(tst_Windows)
#include "tst_windows.moc"
