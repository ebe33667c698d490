// The windows on a fake platform, the engine's messages fed in directly: the message window,
// the loading window's version gate, animation and helper service, the main window's
// decisions, and what a still picture of the kit cannot show.
#include "unittest.h"

#include "ipc/ipcmessages.h"
#include "ipc/ipcmform.h"
#include "kit/globalstyle.h"
#include "kit/shadoweffect.h"
#include "kit/toast.h"
#include "loading/widget.h"
#include "mainform/mainform.h"

#include <QAbstractEventDispatcher>
#include <QDesktopServices>
#include <QGraphicsEffect>
#include <QLineEdit>
#include <QThreadPool>
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

template <typename T> T *shown()
{
    for (QWidget *w : QApplication::topLevelWidgets())
        if (qobject_cast<T *>(w) && w->isVisible())
            return static_cast<T *>(w);
    return nullptr;
}

QString toastText()
{
    return shown<Toast>() ? child<QLabel>(shown<Toast>(), "label")->text() : QString();
}

QString missing(QWidget *form)
{
    return "发生意外。您选择的目录[" + child<QLineEdit>(form, "txtPath")->text() +
           "]不存在，请重试。";
}

bool installing(QWidget *form)
{
    return child(form, "lblInstalling")->isVisible();
}

} // namespace

class tst_Windows : public QObject
{
    Q_OBJECT
    std::optional<FakePlatform> f;
    std::unique_ptr<IPCmForm> ipc;
    QList<QUrl> urls;

    // Linked, shown, a writable folder with room: 安装 passes its checks once ticked.
    void prepare(MainForm &form, bool ticked = true)
    {
        ipc = std::make_unique<IPCmForm>();
        form.setIPCForm(ipc.get());
        form.show();
        form.setInstallPath("D:\\x\\Tandemo", true);
        form.setDiskSpace(1500, 10000);
        if (ticked)
            child<QPushButton>(&form, "btnChkbox")->click();
        f->posted.clear();
    }

public slots:
    void open(const QUrl &url) { urls << url; }

private slots:
    void init()
    {
        f.emplace();
        f->processes = {{640, "corvalen-engine"}};
        Global::SetSelfTest(false);
        Global::SetIPCWnd(0x600001);
        Global::SetUnicodeNsis(false);
        Global::SetIPCFilePath(QString());
        Global::SetInstallerProcId(640);
        Global::SetVersionNew("3.0.0.5");
        Global::SetVersionOld("0.0.0.0");
    }
    void cleanup() { ipc.reset(); }

    void initPathSources()
    {
        QTemporaryDir dir;
        Global::SetIPCFilePath(dir.filePath("ipc.dat"));
        const QByteArray utf16("E\0:\0\\\0\x89\x5b\xc5\x88", 10);
        // The file in Unicode mode only, two bytes at least; the title kept as it is.
        const std::tuple<bool, QByteArray, std::string, std::string, QString, QString> rows[] = {
            {true, utf16, "D:\\Apps", "", "from ipcFile", "E:\\安装"},
            {false, utf16, "D:\\Apps", "", "from Title", "D:\\Apps"},
            {true, "E", "D:\\x", "", "from Title", "D:\\x"},
            {false, {}, "  D:\\A\\ ", "", "from Title", "  D:\\A\\ "},
            {false, {}, "", "C:\\A", "default", "C:\\A\\Tandemo"},
            {false, {}, "", "", "default", "C:\\Tandemo"}};
        for (const auto &[unicode, bytes, title, appData, source, path] : rows) {
            QFile file(Global::GetIPCFilePath());
            QVERIFY(file.open(QFile::WriteOnly | QFile::Truncate) && file.write(bytes) >= 0);
            file.close();
            Global::SetUnicodeNsis(unicode);
            f->titles[0x600001] = title;
            f->environment["APPDATA"] = appData;
            LogCapture log;
            QCOMPARE(IPCmForm().getInitPath(), path);
            QCOMPARE(log.lines.first(),
                     QString("bIsUnicodeNsis:  ") + (unicode ? "true" : "false"));
            // The debug stream quotes text and escapes its backslashes.
            QCOMPARE(log.lines.last(), QString("strInitPath %1:  \"%2\"")
                                           .arg(source, QString(path).replace("\\", "\\\\")));
        }
    }

    void send()
    {
        IPCmForm form;
        LogCapture log;
        form.sendStartInstall();
        form.sendCancel();
        form.sendStartup();
        form.sendInstallPath("D:\\Apps\\Tandemo");
        QCOMPARE(form.windowTitle(), QString("D:\\Apps\\Tandemo")); // where the engine reads it
        f->postOk = false;
        form.sendMsg(WM_IPC_HWND, 0x1234567890ull, -5);
        Global::SetIPCWnd(0); // no engine window, as in self-test mode
        IPCmForm().sendCancel();
        const QString line =
            "IPCmForm::sendMsg: send message to window(%1) %2. msg=%3, wp=%4, lp=%5";
        QCOMPARE(log.lines,
                 QStringList({line.arg(6291457).arg("ok").arg(1125).arg(1).arg(0),
                              line.arg(6291457).arg("ok").arg(1127).arg(0).arg(0),
                              line.arg(6291457).arg("ok").arg(1126).arg(0).arg(0),
                              line.arg(6291457).arg("ok").arg(1125).arg(0).arg(0),
                              line.arg(6291457).arg("fail").arg(1224).arg(78187493520).arg(-5),
                              line.arg(0).arg("fail").arg(1127).arg(0).arg(0)}));
        QCOMPARE(f->posted.size(), size_t(4));
        QCOMPARE(f->posted[0].message, WM_INSTALL_PATH);
        QCOMPARE(f->posted[0].wParam, 1u);
    }

    void receive()
    {
        f->titles[0x600001] = "D:\\Apps\\Tandemo";
        IPCmForm form;
        LogCapture log;
        // Before the main window is linked: logged, nothing resolved.
        QVERIFY(deliver(form, WM_PATH_INFO, 1, 1));
        QCOMPARE(form.windowTitle(), QString("Form"));
        MainForm main;
        form.setMainForm(&main);
        main.setIPCForm(&form);
        QVERIFY(deliver(form, WM_DISK_SPACE, 0x1ffffffffull, -1)); // both 32 bits wide
        QCOMPARE(child<QLabel>(&main, "lblSpace")->text(),
                 QString("所需空间：4294967295MB 可用空间：-1MB"));
        QVERIFY(deliver(form, WM_PATH_INFO, 1, 1));
        QCOMPARE(form.windowTitle(), QString("D:\\Apps\\Tandemo"));
        QCOMPARE(child<QLineEdit>(&main, "txtPath")->text(), QString("D:\\Apps\\Tandemo"));
        f->titles[0x600001] = "X:\\other"; // wParam 0: only the writable flag changes
        QVERIFY(deliver(form, WM_PATH_INFO, 0, 0));
        QCOMPARE(child<QLineEdit>(&main, "txtPath")->text(), QString("D:\\Apps\\Tandemo"));
        QVERIFY(deliver(form, WM_MYPROGRESS, 50, 0));
        // Ours but not the front end's: swallowed without a word. Not ours: left to Qt.
        QVERIFY(deliver(form, WM_INSTALL_PATH, 0, 0) && deliver(form, 0x7fff, 0, 0));
        QVERIFY(!deliver(form, WM_MYPROGRESS, 10, 0, FakePlatform::atom + 1));
        const QString line =
            "IPCmForm::nativeEvent: recv message from Installer(hWnd=-2147483643), "
            "msg=WM_%1, wp=%2, lp=%3";
        QCOMPARE(
            log.lines.filter("nativeEvent"),
            QStringList({line.arg("PATH_INFO").arg(1).arg(1),
                         line.arg("DISK_SPACE").arg(8589934591).arg(-1),
                         line.arg("PATH_INFO").arg(1).arg(1), line.arg("PATH_INFO").arg(0).arg(0),
                         line.arg("MYPROGRESS").arg(50).arg(0)}));
        // Completion quits even unlinked, and is not handed on to Qt's X11 handler.
        IPCmForm alone;
        bool consumed = false;
        QTimer::singleShot(0, [&] { consumed = deliver(alone, WM_COMPLETE_INSTALL, 0, 0); });
        QCOMPARE(execBounded(), 0);
        QVERIFY(consumed);
    }

    void engineWindowKeptHidden()
    {
        Global::SetIPCWnd(0);
        std::make_unique<IPCmForm>().swap(ipc);
        QTest::qWait(250);
        QVERIFY(f->hidden.empty());
        Global::SetIPCWnd(0x600001);
        IPCmForm form;
        QTRY_VERIFY(f->hidden.size() >= 2); // again and again
        QCOMPARE(f->hidden.front(), os::WindowHandle(0x600001));
    }

    void versionGate()
    {
        const QString overwrite = "该版本已安装，继续安装会覆盖原先的版本，是否继续安装？";
        const std::tuple<QString, QString, QString> rows[] = {
            {"2.9.9.9", "", ""}, // older installed: no question
            {"3.0.0.5", "btnOK", overwrite},
            {"3.0.0.5", "btnCancel", overwrite},
            {"3.0.0.5", "btnClose", overwrite},
            {"3.0.0.05", "", overwrite}, // escape
            {"3.1.0.0", "btnOK", "已安装高版本V3.1.0.0，如果要安装当前版本，请先卸载高版本。"}};
        for (const auto &[oldVersion, answer, question] : rows) {
            const bool proceeds =
                question.isEmpty() || (answer == "btnOK" && question == overwrite);
            Global::SetVersionOld(oldVersion);
            f->posted.clear();
            Widget w;
            QString asked;
            if (!question.isEmpty())
                answerNextBox(&w, answer, &asked);
            QElapsedTimer clock;
            clock.start();
            w.init();
            if (proceeds) {
                QTRY_VERIFY(w.isHidden()); // handed over at 100 %
                QVERIFY(shown<MainForm>());
            } else {
                QCOMPARE(execBounded(), 0);
                QVERIFY(clock.elapsed() >= 900); // quits a second after telling the engine
                QVERIFY(w.isVisible());
                QCOMPARE(child<QLabel>(&w, "lblProgress")->text(), QString("进度：30%"));
            }
            QTest::qWait(100);
            QCOMPARE(asked, question);
            QCOMPARE(f->sent(), QList<uint>{proceeds ? WM_IPC_HWND : WM_CANCEL_INSTALL});
        }
    }

    void animation()
    {
        Widget w;
        QLabel *label = child<QLabel>(&w, "lblProgress");
        QStringList seen; // the label as each tick finds it, and the window's timers at the first
        QList<QAbstractEventDispatcher::TimerInfo> timers;
        EventHook hook(&w, [&](QEvent *e) {
            if (e->type() == QEvent::Timer && seen.isEmpty())
                timers = QAbstractEventDispatcher::instance()->registeredTimers(&w);
            if (e->type() == QEvent::Timer)
                seen << label->text().mid(3);
        });
        w.init();
        QTRY_VERIFY(w.isHidden());
        QCOMPARE(seen.join(' '), QString("0% 10% 20% 30% 40% 50% 60% 70% 80% 90%"));
        QCOMPARE(label->text(), QString("进度：100%"));
        QCOMPARE(timers.size(), 1);
        QCOMPARE(timers[0].interval, 50);
        QCOMPARE(timers[0].timerType, Qt::CoarseTimer);
        QVERIFY(shown<MainForm>());
        // Never shown again: no native window left behind, no shadow kept.
        QVERIFY(!w.windowHandle());
        for (QFrame *frame : w.findChildren<QFrame *>())
            QVERIFY(!frame->graphicsEffect() || !frame->graphicsEffect()->isEnabled());
    }

    void serviceAndWatchdog()
    {
        LogCapture log;
        {
            // Self-test: no watchdog, the service started once.
            Global::SetSelfTest(true);
            Global::SetInstallerProcId(0);
            Widget alone;
            alone.startInstSvc(0);
            alone.init();
            QTest::qWait(1500);
            QCOMPARE(f->started, std::vector<std::string>{"TandemoInstSvc.exe 812 0"});
            QVERIFY(!log.lines.contains("Installer(pid=0) not exists, exit"));
        }
        Global::SetSelfTest(false);
        Global::SetInstallerProcId(640);
        f->nextProcessHandle = 50;
        f->nextProcessId = 900;
        Widget w;
        w.startInstSvc(640);
        const QString start = "CreateProcess(\"TandemoInstSvc.exe\", \"812 640\") ";
        QVERIFY(log.lines.contains(start + "ok, pid=900"));
        w.init();
        // Ended: started again on the next tick with the same arguments.
        f->ended = {50};
        QTRY_VERIFY_WITH_TIMEOUT(log.lines.contains(start + "ok, pid=901"), 3000);
        // A start that fails is logged and tried again on every tick, a second apart.
        f->nextProcessHandle = 0;
        f->ended = {51};
        QTRY_COMPARE_WITH_TIMEOUT(f->started.size(), size_t(4), 3000);
        QElapsedTimer clock;
        clock.start();
        QTRY_COMPARE_WITH_TIMEOUT(f->started.size(), size_t(6), 6000);
        QVERIFY(clock.elapsed() >= 1800);
        QVERIFY(log.lines.contains(start + "fail"));
        QCOMPARE(f->started.back(), std::string("TandemoInstSvc.exe 812 640"));
        // The engine goes away: the loop ends with 0.
        f->processes.clear();
        QCOMPARE(execBounded(5000), 0);
        QVERIFY(log.lines.contains("Installer(pid=640) not exists, exit"));
    }

    void refusals()
    {
        const QString space = "磁盘空间不足。请先清理磁盘，或选择另一个磁盘。";
        // Every combination of the four conditions, the first failing check in order winning;
        // then no figures yet, and a requirement compared unsigned.
        for (int mask = 0; mask < 18; ++mask) {
            const bool unticked = mask & 1, absent = mask & 2, full = mask & 4, readOnly = mask & 8;
            MainForm form;
            prepare(form, !unticked);
            const std::uint32_t required = mask == 16 ? 0 : mask == 17 ? 4294967295u : 1500;
            form.setInstallPath("D:\\x\\Tandemo", !readOnly);
            form.setDiskSpace(required, -1); // missing, until the next report says otherwise
            form.setDiskSpace(required, mask == 16 ? 0 : absent ? -1 : full ? 1500 : 10000);
            child<QPushButton>(&form, "btnInstall")->click();
            const QString notice = unticked ? "请选阅读并同意《服务协议》和《隐私政策》"
                                   : absent            ? missing(&form)
                                   : full || mask > 15 ? space
                                   : readOnly ? "您选择的安装目录没有写权限，请选择其他安装目录。"
                                              : "";
            if (notice.isEmpty())
                QTRY_VERIFY(installing(&form));
            QTest::qWait(50);
            QCOMPARE(QString::number(mask) + toastText(),
                     QString::number(mask) + (notice.isEmpty() ? missing(&form) : notice));
            QCOMPARE(f->sent(), notice.isEmpty() ? QList<uint>{WM_INSTALL_PATH} : QList<uint>{});
            QCOMPARE(installing(&form), notice.isEmpty());
        }
    }

    void runningApplication()
    {
        // One of each name, in the suite's order; the first in snapshot order of "Tandemo.exe".
        const Ids all{1, 2, 6, 5, 4};
        const std::pair<QString, Ids> rows[] = {
            {"btnCancel", {}}, {"btnClose", {}}, {"btnOK", all}, {"", all}}; // "": unattended
        for (const auto &[answer, killed] : rows) {
            f->processes = {{5, "Ferrilog.exe"}, {1, "tandemo.exe"},    {2, "Skeinpad.exe"},
                            {3, "Tandemo.exe"},  {4, "TandemoSvc.exe"}, {6, "Lumaslate.exe"}};
            f->terminated.clear();
            MainForm form;
            prepare(form, !answer.isEmpty());
            QString asked;
            if (answer.isEmpty()) {
                form.startInstallWithoutAgreement();
            } else {
                answerNextBox(&form, answer, &asked);
                child<QPushButton>(&form, "btnInstall")->click();
                QTRY_COMPARE(asked, QString("系统正在运行，是否关闭应用后继续安装？"));
            }
            QTest::qWait(50);
            QCOMPARE(f->terminated, killed);
            QCOMPARE(f->sent(), killed.empty() ? QList<uint>{} : QList<uint>{WM_INSTALL_PATH});
            QCOMPARE(installing(&form), !killed.empty());
        }
    }

    void checkMeetsCloseQuestion()
    {
        // Staying: the held result starts the install; quitting drops it.
        for (const bool starts : {true, false}) {
            f->processes = {{2, "Skeinpad.exe"}};
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
                    installedBehindQuestion = installing(&form) || !f->posted.empty();
                    const char *button = starts ? "btnCancel" : "btnOK";
                    child<QPushButton>(QApplication::activeModalWidget(), button)->click();
                });
                child<QPushButton>(&form, "btnClose")->click();
                if (starts)
                    QCoreApplication::exit(0);
            });
            QCOMPARE(execBounded(), 0);
            QVERIFY(!installedBehindQuestion);
            QTest::qWait(50);
            QCOMPARE(installing(&form), starts);
            QCOMPARE(f->sent(), QList<uint>{starts ? WM_INSTALL_PATH : WM_CANCEL_INSTALL});
        }
    }

    void destructionWaitsForEveryCheck()
    {
        {
            MainForm form;
            prepare(form);
            f->snapshotDelayMs = 600;
            child<QPushButton>(&form, "btnInstall")->click();
            QTRY_COMPARE(f->snapshotCalls.load(), 1);
            f->snapshotDelayMs = 0;
            child<QPushButton>(&form, "btnInstall")->click(); // supersedes the slow check
        }
        QCOMPARE(f->snapshotsDone.load(), 2); // the superseded slow one too
    }

    void missingFolderToast()
    {
        MainForm form;
        prepare(form, false);
        form.setDiskSpace(1500, -1);
        QCOMPARE(toastText(), missing(&form));
        QTest::qWait(2000); // up for three seconds
        QVERIFY(!toastText().isEmpty());
        QTRY_VERIFY_WITH_TIMEOUT(toastText().isEmpty(), 8000);
    }

    void progressAndLeaving()
    {
        // The engine gets a second to read its message; closing when completed asks nothing.
        const auto leave = [&](MainForm &form, const char *button, QList<uint> posted) {
            f->posted.clear();
            QElapsedTimer clock;
            QTimer::singleShot(0, [&] {
                clock.start();
                child<QPushButton>(&form, button)->click();
            });
            QCOMPARE(execBounded(), 0);
            QCOMPARE(clock.elapsed() >= 900, !posted.isEmpty());
            QCOMPARE(f->sent(), posted);
        };
        MainForm asking;
        prepare(asking, false);
        QString asked; // cancelled and Escape first: asked again, the window stays
        answerNextBox(&asking, "btnCancel", &asked);
        QTest::keyClick(&asking, Qt::Key_Escape);
        QCOMPARE(asked, QString("确定退出安装吗？"));
        QVERIFY(asking.isVisible());
        answerNextBox(&asking, "btnOK");
        leave(asking, "btnClose", {WM_CANCEL_INSTALL});
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
        leave(form, "btnClose", {});
        leave(form, "btnStartup", {WM_COMPLETE_INSTALL});
    }

    void agreementLinks()
    {
        QDesktopServices::setUrlHandler("https", this, "open");
        MainForm form;
        child<QPushButton>(&form, "btnService")->click();
        child<QPushButton>(&form, "btnPrivate")->click();
        QDesktopServices::unsetUrlHandler("https");
        QCOMPARE(urls.size(), 2);
        QCOMPARE(urls[0].query(), QString("hideHeader=1&h5Preset=PC"));
        QCOMPARE(urls[0].fragment() + urls[1].fragment(), QString("263199"));
        QCOMPARE(urls[0].adjusted(QUrl::RemoveFragment), urls[1].adjusted(QUrl::RemoveFragment));
    }

    void shadow()
    {
        // Against Qt's own effect, odd sizes, smaller than the tile, at 175 %; twice, the second
        // paint from the kept tile. Away from 100 % Qt's result moves a step with the far edge.
        const std::pair<QSize, qreal> rows[] = {{{131, 98}, 1}, {{90, 61}, 1}, {{401, 212}, 1.75}};
        for (const auto &[size, dpr] : rows) {
            QWidget host; // whose style sheet names other frames
            host.setStyleSheet("QFrame#frame { background: #F0F0F0; } QLabel { color: red; }");
            host.resize(size);
            QFrame *frame = Global::CreateShadowFrame(&host, nullptr, 4, 8);
            host.setFixedSize(frame->size() + QSize(16, 16));
            auto *alone = new QFrame;
            alone->setStyleSheet(frame->styleSheet());
            alone->resize(frame->size());
            const QImage reference = static_cast<ShadowEffect *>(frame->graphicsEffect())
                                         ->renderWithQtEffect(alone, dpr);
            QVERIFY(qAlpha(reference.pixel(reference.width() / 2, qRound(8 * dpr) - 2)) > 0);
            for (int pass = 0; pass < 3; ++pass) {
                // Then the tile follows its frame's look.
                if (pass == 2)
                    frame->setStyleSheet("QFrame{background-color: #FF0000; border-radius:4px;}");
                QImage drawn(host.size() * dpr, QImage::Format_ARGB32_Premultiplied);
                drawn.setDevicePixelRatio(dpr);
                drawn.fill(Qt::transparent);
                host.render(&drawn, QPoint(), QRegion(), QWidget::DrawChildren);
                QCOMPARE(drawn.size(), reference.size());
                int worst = 0;
                for (int y = 0; y < drawn.height(); ++y)
                    for (int x = 0; x < drawn.width(); ++x)
                        worst = qMax(worst,
                                     channelDifference(drawn.pixel(x, y), reference.pixel(x, y)));
                if (pass < 2)
                    QVERIFY(worst <= (dpr == 1 ? 0 : 1));
                else
                    QCOMPARE(QColor(drawn.pixel(drawn.rect().center())).name(), QString("#ff0000"));
            }
        }
    }

    void toast()
    {
        // Centred on its anchor as it is at show time, not when anchored.
        const std::pair<QString, QRect> rows[] = {
            {"磁盘空间不足。", {100, 100, 476, 346}},
            {"发生意外。您选择的目录[D:\\a\\very\\long\\path\\Tandemo]不存在，请重试。",
             {-200, 600, 476, 426}},
            {"", {0, 0, 101, 51}}};
        for (const auto &[text, anchor] : rows) {
            QWidget window;
            Toast toast;
            toast.setAnchorWidget(&window);
            window.setGeometry(anchor);
            toast.showToast(text, 3000);
            const int w = QFontMetrics(child(&toast, "label")->font()).horizontalAdvance(text) + 20;
            QCOMPARE(toast.geometry(), QRect(anchor.left() + (anchor.width() - w) / 2,
                                             anchor.top() + (anchor.height() - 34) / 2, w, 34));
            QCOMPARE(toast.focusPolicy(), Qt::NoFocus);
        }
        // Fades, never brightening, for the second notice's own duration.
        Toast toast;
        toast.showToast("第一条", 300);
        QTRY_VERIFY(toast.windowOpacity() < 1.0);
        toast.showToast("第二条通知更长一些", 600);
        QCOMPARE(toast.windowOpacity(), 1.0);
        QCOMPARE(child<QLabel>(&toast, "label")->text(), QString("第二条通知更长一些"));
        qreal last = 1.0;
        QElapsedTimer clock;
        clock.start();
        while (toast.isVisible() && clock.elapsed() < 5000) {
            QTest::qWait(20);
            QVERIFY(toast.windowOpacity() <= last);
            last = toast.windowOpacity();
        }
        QVERIFY(clock.elapsed() >= 450 && toast.isHidden());
        QCOMPARE(toast.windowOpacity(), 0.0);
    }
};

QTEST_MAIN(tst_Windows)
#include "tst_windows.moc"
