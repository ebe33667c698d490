// The application on a fake platform, the engine's messages fed in directly: launch
// parameters, processes, DPI, the message window, the loading window's version gate, animation
// and helper service, the main window's decisions, what a still picture of the kit cannot show.
#include "unittest.h"

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

#include <QAbstractEventDispatcher>
#include <QDesktopServices>
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
    static bool installing(QWidget *form) { return child(form, "lblInstalling")->isVisible(); }
    static QString missing(QWidget *form)
    {
        return "发生意外。您选择的目录[" + child<QLineEdit>(form, "txtPath")->text() +
               "]不存在，请重试。";
    }

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
        Global::SetInstallerProcId(640);
        Global::SetVersionNew("3.0.0.5");
        Global::SetVersionOld("0.0.0.0");
    }
    void cleanup() { ipc.reset(); }

    void arguments()
    {
        // Decimal only, hexadecimal is 0; an empty text replaces its default; local 8-bit text
        // taken whole; ids beyond 32 bits are 0; a negative handle is sign-extended.
        const QStringList names{"hIPCWnd",        "bDisableChoosePath", "bWithoutAgreement",
                                "strVersionNew",  "strVersionOld",      "iInstallerProcId",
                                "strIPCFilePath", "bIsUnicodeNsis"};
        const std::tuple<quint64, QList<QByteArray>, QString> rows[] = {
            {0, {}, R"(0|false|false|"3.0.0.5"|"0.0.0.0"|0|""|false)"},
            {0,
             {"0x10", "1", "true", "", "3.0.0.5", "12", "/tmp/f", "1", "9"},
             R"(0|true|false|""|"3.0.0.5"|12|"/tmp/f"|true)"},
            {7,
             {"7", "0", "2", "3.0.0.5 ", "版本", "99999999999", "/tmp/目录 x"},
             R"(7|false|true|"3.0.0.5 "|"版本"|0|"/tmp/目录 x"|false)"},
            {7,
             {"007", " 1 ", "12abc", "", "", "-2147483648"},
             R"(7|true|false|""|""|-2147483648)"},
            {quint64(-2), {"-2", "0", "0", "", "", "2147483648"}, R"(-2|false|false|""|""|0)"}};
        for (auto [handle, args, values] : rows) {
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
            QCOMPARE(quint64(Global::GetIPCWnd()), handle);
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
        // A failed start leaves the id as it was.
        f->nextProcessHandle = 0;
        std::uint32_t pid = 1;
        QVERIFY(!Global::StartProcess("x.exe", "", pid) && pid == 1);
    }

    void quitLater()
    {
        Global::SetSelfTest(true);
        QTimer::singleShot(0, [] { ::quitLater(60000); });
        QCOMPARE(execBounded(), 0); // at once in self-test mode
    }

    void dpi()
    {
        const std::pair<std::optional<int>, float> system[] = {
            {144, 1.5f}, {48, 0.5f}, {47, 1.0f}, {std::nullopt, 1.0f}};
        for (const auto &[dpi, scale] : system) {
            f->systemDpiValue = dpi;
            QCOMPARE(DPIUtil::getSystemScale(), scale);
        }
        // Monitors as {readable, flags, dpi}; no dpi: no per-monitor call. The last secondary
        // wins; without the per-monitor call the system scale is both; flags other than exactly
        // primary are secondary; an unreadable monitor is skipped; one monitor keeps the
        // secondary of the last enumeration.
        using Monitors = std::vector<std::array<std::uint32_t, 3>>;
        const std::tuple<Monitors, int, float, float> rows[] = {
            {{{1, 1, 96}, {1, 0, 120}, {1, 0, 168}}, 96, 1, 1.75f},
            {{{1, 1, 0}, {1, 0, 0}}, 120, 1.25f, 1.25f},
            {{{1, 1, 96}, {1, 0, 96}}, 144, 1, 1},
            {{{1, 3, 192}, {1, 1, 120}}, 96, 1.25f, 2},
            {{{0, 1, 192}, {1, 0, 144}, {1, 1, 120}}, 96, 1.25f, 1.5f},
            {{{1, 1, 144}}, 96, 1.5f, 1.5f},
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
            {QByteArray("\xff\xfe\x44\0", 4), QString(QChar(0xfeff)) + "D"},
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
        IPCmForm alone;
        alone.sendCancel();
        const QString line =
            "IPCmForm::sendMsg: send message to window(%1) %2. msg=%3, wp=%4, lp=%5";
        QCOMPARE(log.lines,
                 QStringList({line.arg(6291457).arg("ok").arg(1125).arg(1).arg(0),
                              line.arg(6291457).arg("ok").arg(1127).arg(0).arg(0),
                              line.arg(6291457).arg("ok").arg(1126).arg(0).arg(0),
                              line.arg(6291457).arg("ok").arg(1125).arg(0).arg(0),
                              line.arg(6291457).arg("fail").arg(1224).arg(78187493520).arg(-5),
                              line.arg(0).arg("fail").arg(1127).arg(0).arg(0)}));
        QCOMPARE(f->sent(), QList<uint>({1125, 1127, 1126, 1125}));
        QCOMPARE(f->posted[0].wParam, 1u);
        // The engine's own window is kept hidden, again and again.
        QTRY_VERIFY(f->hidden.size() >= 2);
        QCOMPARE(std::set(f->hidden.begin(), f->hidden.end()),
                 std::set<os::WindowHandle>{0x600001});
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
        QVERIFY(deliver(form, WM_PATH_INFO, 1, 1));
        QCOMPARE(form.windowTitle(), QString("D:\\Apps\\Tandemo"));
        QCOMPARE(child<QLineEdit>(&main, "txtPath")->text(), QString("D:\\Apps\\Tandemo"));
        QVERIFY(deliver(form, WM_DISK_SPACE, 0x100000000ull | 1500, -1)); // 32 bits each
        QElapsedTimer clock;
        clock.start();
        QCOMPARE(toastText(), missing(&main));
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
        const QString line =
            "IPCmForm::nativeEvent: recv message from Installer(hWnd=-2147483643), "
            "msg=WM_%1, wp=%2, lp=%3";
        QCOMPARE(log.lines.filter("nativeEvent"),
                 QStringList(
                     {line.arg("PATH_INFO").arg(1).arg(1), line.arg("PATH_INFO").arg(1).arg(1),
                      line.arg("DISK_SPACE").arg(4294968796).arg(-1),
                      line.arg("DISK_SPACE").arg(4294967295).arg(5),
                      line.arg("PATH_INFO").arg(0).arg(0), line.arg("MYPROGRESS").arg(50).arg(0)}));
        // The missing folder's notice is up for three seconds.
        QTest::qWait(2000 - clock.elapsed());
        QVERIFY(!toastText().isEmpty());
        QTRY_VERIFY_WITH_TIMEOUT(toastText().isEmpty(), 8000);
        // Completion quits even unlinked, and is not handed on to Qt's X11 handler.
        IPCmForm alone;
        bool consumed = false;
        QTimer::singleShot(0, [&] { consumed = deliver(alone, WM_COMPLETE_INSTALL, 0, 0); });
        QCOMPARE(execBounded(), 0);
        QVERIFY(consumed);
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

    void closeQuestion()
    {
        MainForm asking;
        prepare(asking, false);
        QString asked; // cancelled, and Escape: asked again, the window stays
        answerNextBox(&asking, "btnCancel", &asked);
        QTest::keyClick(&asking, Qt::Key_Escape);
        QCOMPARE(asked, QString("确定退出安装吗？"));
        QVERIFY(asking.isVisible() && f->posted.empty());
        // A check that ends inside the question's loop: staying starts the install with the held
        // result, quitting drops it and ends the outer loop a second later.
        for (const bool starts : {true, false}) {
            f->processes = {{2, "Skeinpad.exe"}};
            MainForm form;
            prepare(form);
            bool installedBehindQuestion = true;
            QElapsedTimer clock;
            QTimer::singleShot(0, [&] {
                clock.start();
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
            QVERIFY(!installedBehindQuestion && (starts || clock.elapsed() >= 900));
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

    void progressAndLeaving()
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
        // Closing asks nothing now; 开始使用 gives the engine a second to read its message.
        for (const QString button : {"btnClose", "btnStartup"}) {
            f->posted.clear();
            QTimer::singleShot(0, [&] {
                clock.start();
                child<QPushButton>(&form, qPrintable(button))->click();
            });
            QCOMPARE(execBounded(), 0);
            QCOMPARE(clock.elapsed() >= 900, button == "btnStartup");
            QCOMPARE(f->sent(),
                     button == "btnStartup" ? QList<uint>{WM_COMPLETE_INSTALL} : QList<uint>{});
        }
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
            for (int pass = 0; pass < 3; ++pass) {
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
        QWidget window;
        Toast toast;
        toast.setAnchorWidget(&window);
        window.setGeometry(-201, 600, 477, 427); // read at show time, not when anchored
        toast.showToast("第一条", 300);
        QTRY_VERIFY(toast.windowOpacity() < 1.0);
        const QString text = "第二条通知更长一些";
        toast.showToast(text, 600);
        const int w = QFontMetrics(child(&toast, "label")->font()).horizontalAdvance(text) + 20;
        QCOMPARE(toast.geometry(), QRect(-201 + (477 - w) / 2, 600 + (427 - 34) / 2, w, 34));
        QCOMPARE(toast.focusPolicy(), Qt::NoFocus);
        QCOMPARE(toast.windowOpacity(), 1.0);
        QCOMPARE(child<QLabel>(&toast, "label")->text(), text);
        // Fades, never brightening, for the second notice's own duration.
        QElapsedTimer clock;
        clock.start();
        for (qreal last = 1; toast.isVisible() && clock.elapsed() < 5000;
             last = toast.windowOpacity()) {
            QTest::qWait(20);
            QVERIFY(toast.windowOpacity() <= last);
        }
        QVERIFY(clock.elapsed() >= 450 && toast.isHidden());
        QCOMPARE(toast.windowOpacity(), 0.0);
    }
};

QTEST_MAIN(tst_App)
#include "tst_app.moc"
