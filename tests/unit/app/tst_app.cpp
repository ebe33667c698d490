// The application on a fake platform, the engine's messages fed in directly: launch
// parameters, processes, DPI, the message window, the loading window's version gate, animation
// and helper service, the main window's decisions, what a still picture of the kit cannot show.
#include "fakeplatform.h"

#include "app/launchparams.h"
#include "app/startup.h"
#include "ipc/initpath.h"
#include "ipc/ipcmessages.h"
#include "ipc/ipcmform.h"
#include "kit/dpiutil.h"
#include "kit/globalstyle.h"
#include "kit/shadoweffect.h"
#include "kit/toast.h"
#include "loading/versioncompare.h"
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

} // namespace

class tst_App : public QObject
{
    Q_OBJECT
    std::optional<FakePlatform> f;
    std::unique_ptr<IPCmForm> ipc;
    QList<QUrl> urls;

    template <typename T> static T *shown()
    {
        for (QWidget *w : QApplication::topLevelWidgets())
            if (qobject_cast<T *>(w) && w->isVisible())
                return static_cast<T *>(w);
        return nullptr;
    }
    static QString toastText()
    {
        return shown<Toast>() ? shown<Toast>()->findChild<QLabel *>()->text() : "";
    }
    static QString text(QObject *w, const char *name)
    {
        return child(w, name)->property("text").toString();
    }
    static bool installing(QWidget *form) { return child(form, "lblInstalling")->isVisible(); }
    static QString missing(QWidget *form)
    {
        return "发生意外。您选择的目录[" + text(form, "txtPath") + "]不存在，请重试。";
    }

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

public slots:
    void open(const QUrl &url) { urls << url; }

private slots:
    void init()
    {
        f.emplace();
        f->processes = {{640, "corvalen-engine"}};
        Global::SetSelfTest(false);
        Global::SetIPCWnd(0x600001);
        Global::SetInstallerProcId(640);
        Global::SetVersionNew("3.0.0.5");
        Global::SetVersionOld("0.0.0.0");
    }
    void cleanup() { ipc.reset(); }

    void argumentsAndProcesses()
    {
        // Decimal only, hexadecimal is 0; an empty text replaces its default; local 8-bit text
        // taken whole; ids beyond 32 bits are 0; a negative handle is sign-extended.
        const QStringList names{"hIPCWnd",        "bDisableChoosePath", "bWithoutAgreement",
                                "strVersionNew",  "strVersionOld",      "iInstallerProcId",
                                "strIPCFilePath", "bIsUnicodeNsis"};
        const std::pair<QList<QByteArray>, QString> rows[] = {
            {{}, R"(0|false|false|"3.0.0.5"|"0.0.0.0"|0|""|false)"},
            {{"0x10", "1", "true", "", "3.0.0.5", "12", "/tmp/f", "1", "9"},
             R"(0|true|false|""|"3.0.0.5"|12|"/tmp/f"|true)"},
            {{"7", "0", "2", "3.0.0.5 ", "版本", "99999999999", "/tmp/目录 x"},
             R"(7|false|true|"3.0.0.5 "|"版本"|0|"/tmp/目录 x"|false)"},
            {{"007", " 1 ", "12abc", "", "", "-2147483648"}, R"(7|true|false|""|""|-2147483648)"},
            {{"-2", "0", "0", "", "", "2147483648"}, R"(-2|false|false|""|""|0)"}};
        for (auto [args, values] : rows) {
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
            QCOMPARE(Global::GetIPCWnd(),
                     os::WindowHandle(std::intptr_t(values.section('|', 0, 0).toInt())));
            // Written back as the engines write their window: the same text.
            QCOMPARE(QString::number(os::windowHandleArgument(Global::GetIPCWnd())),
                     values.section('|', 0, 0));
        }
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
    }

    void dpiVersionsAndFolders()
    {
        // Monitors as {readable, flags, dpi}; no dpi: no per-monitor call, the system scale for
        // both, below half scale 1. The last secondary wins; flags other than exactly primary
        // are secondary; an unreadable monitor is skipped; one monitor keeps the secondary of
        // the last enumeration.
        using Monitors = std::vector<std::array<std::uint32_t, 3>>;
        const std::tuple<Monitors, std::optional<int>, float, float> rows[] = {
            {{{1, 1, 0}}, 144, 1.5f, 1.5f},
            {{{1, 1, 0}}, 48, 0.5f, 0.5f},
            {{{1, 1, 0}}, 47, 1, 1},
            {{{1, 1, 0}}, std::nullopt, 1, 1},
            {{{1, 1, 96}, {1, 0, 120}, {1, 0, 168}}, 96, 1, 1.75f},
            {{{1, 1, 0}, {1, 0, 0}}, 120, 1.25f, 1.25f},
            {{{1, 1, 96}, {1, 0, 96}}, 144, 1, 1},
            {{{1, 3, 192}, {1, 1, 120}}, 96, 1.25f, 2},
            {{{0, 1, 192}, {1, 0, 144}, {1, 1, 120}}, 96, 1.25f, 1.5f},
            {{{1, 1, 192}}, 96, 2, 1.5f},
            {{{1, 1, 144}, {1, 0, 120}}, 96, 1.5f, 1.25f}};
        for (const auto &[monitors, systemDpi, primary, secondary] : rows) {
            f->monitors.clear();
            f->monitorDpi.clear();
            for (const auto &[readable, flags, dpi] : monitors) {
                f->monitors.push_back({f->monitors.size() + 1, readable != 0, flags});
                if (dpi)
                    f->monitorDpi[f->monitors.size()] = dpi;
            }
            f->systemDpiValue = systemDpi;
            float p = 0, s = 0;
            DPIUtil::getMonitorScales(&p, &s);
            QCOMPARE(std::make_pair(p, s), std::make_pair(primary, secondary));
        }
        qputenv("QT_PLUGIN_PATH", "/somewhere/else");
        qputenv("QT_QPA_PLATFORM_PLUGIN_PATH", "/somewhere/else");
        Startup::initDpiEnvironment();
        // Per-monitor aware while reading the monitors, system aware afterwards.
        QCOMPARE(f->awarenessCalls, std::vector<int>({2, 1}));
        QCOMPARE(qgetenv("QT_SCREEN_SCALE_FACTORS"), QByteArray("1.5;1.25"));
        QCOMPARE(qgetenv("QT_PLUGIN_PATH") + qgetenv("QT_QPA_PLATFORM_PLUGIN_PATH"), QByteArray());
        QVERIFY(QCoreApplication::testAttribute(Qt::AA_UseHighDpiPixmaps));
        QCOMPARE(Startup::screenScaleFactors(1.0f / 3.0f, 1.0f), QByteArray("0.333333;1"));
        QVERIFY(Startup::isSelfTest(1) && !Startup::isSelfTest(2)); // exactly one: an engine's
        // Numbers, not text; the first difference decides, a bad part after it is never reached.
        const std::optional<int> none, newer(1), same(0), older(-1);
        const std::tuple<QString, QString, std::optional<int>> versions[] = {
            {"3.0.0.10", "3.0.0.9", newer}, {"3.0.0.05", "3.0.0.5", same},
            {"4.0.0.0", "3.9.9.9", newer},  {"3.0.0.5", "3.1.0.0", older},
            {"3.0.0", "0.0.0.0", none},     {"3.0.0.5", "3.0.0.5.1", none},
            {"3.0.0.5", "3.0.0.x", none},   {"2.0.0.0", "3.0.0.x", older},
            {"3..0.5", "3.0.0.5", none},    {"3.0.0.99999999999", "3.0.0.5", none},
            {"3.0.0.-1", "3.0.0.0", older}};
        for (const auto &[newVersion, oldVersion, result] : versions)
            QCOMPARE(compareVersions(newVersion, oldVersion), result);
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
    void messageWindow()
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
            QVERIFY(file.open(QFile::WriteOnly) && file.write(bytes) >= 0 && file.flush());
            Global::SetUnicodeNsis(unicode);
            f->titles[0x600001] = title;
            f->environment["APPDATA"] = appData;
            LogCapture log;
            QCOMPARE(IPCmForm().getInitPath(), path);
            // The debug stream quotes text and escapes its backslashes.
            QCOMPARE(
                log.lines.first() + '|' + log.lines.last(),
                QString("bIsUnicodeNsis:  %1|strInitPath %2:  \"%3\"")
                    .arg(unicode ? "true" : "false", source, QString(path).replace("\\", "\\\\")));
        }
        f->titles[0x600001] = "D:\\Apps\\Tandemo";
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
        QCOMPARE(form.windowTitle() + text(&main, "txtPath"),
                 QString("D:\\Apps\\TandemoD:\\Apps\\Tandemo"));
        QVERIFY(deliver(form, WM_DISK_SPACE, 0x100000000ull | 1500, -1)); // 32 bits each
        QElapsedTimer clock;
        clock.start();
        QCOMPARE(toastText(), missing(&main));
        const QSize toast = shown<Toast>()->size();
        QCOMPARE(shown<Toast>()->pos(), QPoint(-201 + (main.width() - toast.width()) / 2,
                                               600 + (main.height() - toast.height()) / 2));
        QCOMPARE(text(&main, "lblSpace"), QString("所需空间：1500MB 可用空间：-1MB"));
        QVERIFY(deliver(form, WM_DISK_SPACE, 4294967295u, 5));
        QCOMPARE(text(&main, "lblSpace"), QString("所需空间：4294967295MB 可用空间：5MB"));
        f->titles[0x600001] = "X:\\other"; // wParam 0: only the writable flag changes
        QVERIFY(deliver(form, WM_PATH_INFO, 0, 0));
        QCOMPARE(text(&main, "txtPath"), QString("D:\\Apps\\Tandemo"));
        QVERIFY(deliver(form, WM_MYPROGRESS, 50, 0));
        // Ours but not the front end's: swallowed without a word. Not ours: left to Qt.
        QVERIFY(deliver(form, WM_INSTALL_PATH, 0, 0) && deliver(form, 0x7fff, 0, 0));
        QVERIFY(!deliver(form, WM_MYPROGRESS, 10, 0, FakePlatform::atom + 1));
        Global::SetIPCWnd(0); // no engine window, as in self-test mode
        IPCmForm alone;
        alone.sendCancel();
        const QString sent =
            "IPCmForm::sendMsg: send message to window(%1) %2. msg=%3, wp=%4, lp=%5";
        const QString received =
            "IPCmForm::nativeEvent: recv message from Installer(hWnd=-2147483643), "
            "msg=WM_%1, wp=%2, lp=%3";
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

    void loadingWindow()
    {
        const QString overwrite = "该版本已安装，继续安装会覆盖原先的版本，是否继续安装？";
        const std::tuple<QString, QString, QString, bool> rows[] = {
            {"2.9.9.9", "", "", true}, // older installed: no question
            {"3.0.0.5", "btnOK", overwrite, true},
            {"3.0.0.5", "btnCancel", overwrite, false},
            {"3.0.0.5", "btnClose", overwrite, false},
            {"3.0.0.05", "", overwrite, false}, // escape
            {"3.1.0.0", "btnOK", "已安装高版本V3.1.0.0，如果要安装当前版本，请先卸载高版本。",
             false}};
        for (const auto &[oldVersion, answer, question, proceeds] : rows) {
            Global::SetVersionOld(oldVersion);
            f->posted.clear();
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
        Global::SetVersionOld("0.0.0.0");
        f->started.clear();
        LogCapture log;
        f->nextProcessHandle = 50;
        f->nextProcessId = 900;
        Widget w;
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

    void installChecks()
    {
        // Every combination of the four conditions, the first failing check in order winning;
        // then no figures yet, and a requirement compared unsigned (the folder read-only: its
        // notice would come next).
        for (int mask = 0; mask < 18; ++mask) {
            const bool readOnly = mask & 1, absent = mask & 2, full = mask & 4, unticked = mask & 8;
            auto form = newForm(!unticked);
            const std::uint32_t required = mask == 16 ? 0 : mask == 17 ? 4294967295u : 1500;
            form->setInstallPath("D:\\x\\Tandemo", !readOnly);
            form->setDiskSpace(required, -1); // missing, until the next report says otherwise
            form->setDiskSpace(required, mask == 16 ? 0 : absent ? -1 : full ? 1500 : 10000);
            child<QPushButton>(form.get(), "btnInstall")->click();
            const QString notice = unticked ? "请选阅读并同意《服务协议》和《隐私政策》"
                                   : absent ? missing(form.get())
                                   : full || mask > 15
                                       ? "磁盘空间不足。请先清理磁盘，或选择另一个磁盘。"
                                   : readOnly ? "您选择的安装目录没有写权限，请选择其他安装目录。"
                                              : "";
            QTest::qWait(50);
            QTRY_COMPARE(f->sent().size(), notice.isEmpty() ? 1 : 0); // WM_INSTALL_PATH
            QCOMPARE(toastText(), notice.isEmpty() ? missing(form.get()) : notice);
        }
        // One of each name, in the suite's order; the first in snapshot order of "Tandemo.exe".
        const Ids all{1, 2, 6, 5, 4};
        const std::pair<QString, Ids> rows[] = {
            {"btnCancel", {}}, {"btnClose", {}}, {"btnOK", all}, {"", all}}; // "": unattended
        for (const auto &[answer, killed] : rows) {
            f->processes = {{5, "Ferrilog.exe"}, {1, "tandemo.exe"},    {2, "Skeinpad.exe"},
                            {3, "Tandemo.exe"},  {4, "TandemoSvc.exe"}, {6, "Lumaslate.exe"}};
            f->terminated.clear();
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
            QCOMPARE(f->terminated, killed);
            QCOMPARE(f->sent(), killed.empty() ? QList<uint>{} : QList<uint>{WM_INSTALL_PATH});
        }
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

    void shadowAndToast()
    {
        // Against Qt's own effect, odd sizes, smaller than the tile, at 175 %; twice, the second
        // paint from the kept tile; then the tile follows its frame's look. Away from 100 % Qt's
        // result moves a step with the far edge.
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
            const auto drawn = [&, dpr = dpr] {
                QImage image(host.size() * dpr, QImage::Format_ARGB32_Premultiplied);
                image.setDevicePixelRatio(dpr);
                image.fill(Qt::transparent);
                host.render(&image, QPoint(), QRegion(), QWidget::DrawChildren);
                return image;
            };
            for (int pass = 0; pass < 2; ++pass)
                QCOMPARE(differingPixels(drawn(), reference, dpr == 1 ? 0 : 1), 0);
            frame->setStyleSheet("QFrame{background-color: #FF0000; border-radius:4px;}");
            QCOMPARE(QColor(drawn().pixel(reference.rect().center())).name(), QString("#ff0000"));
        }
        // A notice replacing one that is fading: at full opacity, for its own duration.
        Toast toast;
        toast.showToast("第一条", 300);
        QTRY_VERIFY(toast.windowOpacity() < 1.0);
        toast.showToast("第二条通知更长一些", 600);
        QElapsedTimer clock;
        clock.start();
        QVERIFY(toast.windowOpacity() == 1.0 && toast.focusPolicy() == Qt::NoFocus);
        QCOMPARE(text(&toast, "label"), QString("第二条通知更长一些"));
        QTRY_VERIFY_WITH_TIMEOUT(toast.isHidden(), 5000);
        QVERIFY(clock.elapsed() >= 450 && toast.windowOpacity() == 0.0);
    }
};

QTEST_MAIN(tst_App)
#include "tst_app.moc"
