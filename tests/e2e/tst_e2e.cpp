// The real programs, one user story per function, clicked through xdotool on the X display
// that scripts/test.sh provides: the native build driven by the reference engine, or with
// CORVALEN_WINDOWS_BIN the Windows build under Wine (scripts/test-windows.sh provides the
// prefix), and with CORVALEN_INSTALLER as well the installer that makensis built. Under Wine the
// front end logs to the debugger, so outcomes come from the engine's JSON log, the files, the
// registry, /proc and the screen. The screen is read back from the X server, through the
// compositor of the private display, and compared with the reviewed pictures.
#include "geometry.h"
#include "pixels.h"

#include <QtTest>

#include <QJsonDocument>
#include <QJsonObject>
#include <QPainter>
#include <QScopeGuard>
#include <QScreen>
#include <QStorageInfo>

#include <csignal>

namespace {

const QString kLinuxBin = CORVALEN_BIN_DIR;
const QString kWindowsBin = qEnvironmentVariable("CORVALEN_WINDOWS_BIN");
const QString kInstaller = qEnvironmentVariable("CORVALEN_INSTALLER");
// Where the installer puts its shortcuts, in the Wine user's folder.
const char *const kShortcutFolders[] = {"Desktop",
                                        "AppData/Roaming/Microsoft/Windows/Start Menu/Programs"};
const QString kUninstallKey =
    "HKCU\\Software\\Microsoft\\Windows\\CurrentVersion\\Uninstall\\Corvalen";
const QString kPayload = CORVALEN_PAYLOAD_DIR; // the application's files: any folder of files
const bool kWine = !kWindowsBin.isEmpty();
const QString kBin = kWine ? kWindowsBin : kLinuxBin, kExe = kWine ? ".exe" : "";
const QString kFrontEnd = "CorvalenSetup" + kExe, kEngine = "corvalen-engine" + kExe;
// Every process this run starts carries it, and so do their children: whatever else runs on
// the machine is never touched.
const QByteArray kRun = QByteArray::number(QCoreApplication::applicationPid());

const QSize kMainFolded(GEOMETRY_MAIN_FOLDED), kMainUnfolded(GEOMETRY_MAIN_UNFOLDED),
    kMsgBox(GEOMETRY_MSG_BOX);
// Inside the windows, shadow margin included.
const QPoint kCheckBox(GEOMETRY_CHECK_BOX), kInstall(GEOMETRY_INSTALL),
    kStartup(GEOMETRY_START_USING), kMoreOptions(GEOMETRY_MORE_OPTIONS), kBrowse(GEOMETRY_BROWSE),
    kClose(GEOMETRY_CLOSE), kMsgOK(GEOMETRY_MSG_OK), kMsgCancel(GEOMETRY_MSG_CANCEL);
// The choice page's controls: all that hovering one may change (更多选项 and its arrow at once).
const QRect kHoverable[] = {{188, 198, 100, 34},
                            {428, 29, 20, 20},
                            {228, 248, 61, 20},
                            {311, 248, 61, 20},
                            {kCheckBox - QPoint(8, 8), QSize(16, 16)},
                            {201, 298, 77, 20}};
const QRect kProgressBar(48, 235, 380, 12);
// What scripts/lib/xvfb.sh's desktop shows under the windows' translucent margin.
const QColor kDesktop(0xF2, 0xF3, 0xF5);
// Natively the picture tier's references serve, laid on the desktop; text under Wine comes
// from the Windows font engine, so that rendition has reviewed pictures of its own.
const QString kScreenReferences =
    QString(CORVALEN_SCREEN_REFERENCE_DIR) + (kWine ? "/wine/" : "/native/");

QString run(const QString &program, const QStringList &args)
{
    QProcess p;
    p.start(program, args);
    p.waitForFinished(20000);
    return QString::fromUtf8(p.readAllStandardOutput()).trimmed();
}

QRect windowRect(const QString &id)
{
    QMap<QString, int> v; // X=, Y=, WIDTH=, HEIGHT= lines
    for (const QString &line : run("xdotool", {"getwindowgeometry", "--shell", id}).split('\n'))
        v[line.section('=', 0, 0)] = line.section('=', 1).toInt();
    return QRect(v["X"], v["Y"], v["WIDTH"], v["HEIGHT"]);
}

// The visible top-level window titled "Corvalen" of that size, "" when none comes in time.
QString waitWindow(const QSize &size, int ms = 30000)
{
    QString found;
    const auto seen = [&] {
        for (const QString &id :
             run("xdotool", {"search", "--onlyvisible", "--name", "^Corvalen$"}).split('\n'))
            if (!id.isEmpty() && windowRect(id).size() == size)
                return !(found = id).isEmpty();
        return false;
    };
    return QTest::qWaitFor(seen, ms) ? found : QString();
}

const QStringList kAway{"mousemove", "1270", "1010"}; // a corner no window of the run covers

void clickAt(const QString &window, QPoint p)
{
    p += windowRect(window).topLeft();
    // The hover first, as a person's pointer would, and away after the click.
    run("xdotool", QStringList{"mousemove", QString::number(p.x()), QString::number(p.y()), "sleep",
                               "0.06", "click", "1"} +
                       kAway);
}

QImage grab(const QString &window)
{
    const QRect r = windowRect(window);
    return QGuiApplication::primaryScreen()
        ->grabWindow(0, r.x(), r.y(), r.width(), r.height())
        .toImage();
}

// The reviewed picture of `state` as the display shows it over `under`, by default the desktop.
QImage reference(const QString &state, const QImage &under = {})
{
    QImage image(kScreenReferences + state + ".png");
    if (!image.isNull() || kWine)
        return image;
    const QImage offscreen(QString(CORVALEN_REFERENCE_DIR) + "/" + state + ".png");
    image = under.isNull() ? QImage(offscreen.size(), QImage::Format_ARGB32_Premultiplied) : under;
    if (under.isNull())
        image.fill(kDesktop);
    QPainter(&image).drawImage(0, 0, offscreen);
    return image;
}

// "" once the window as the display shows it matches the picture of `state` but for
// `changing`, else what differs, with the pictures written. CORVALEN_UPDATE_REFERENCES writes
// the pictures the picture tier cannot provide, from the states seen whole where they can be.
QString screenDiffers(const QString &window, const QString &state, const QRegion &changing = {},
                      const QImage &under = {})
{
    const QString file = kScreenReferences + state + ".png";
    if (qEnvironmentVariableIsSet("CORVALEN_UPDATE_REFERENCES") &&
        (changing.isEmpty() || !QFileInfo::exists(file)) &&
        (kWine || !QFileInfo::exists(QString(CORVALEN_REFERENCE_DIR) + "/" + state + ".png"))) {
        QTest::qWait(1000);
        grab(window).save(file);
    }
    const QImage expected = reference(state, under);
    QString differs;
    (void)QTest::qWaitFor(
        [&] {
            QImage actual = grab(window).convertToFormat(QImage::Format_ARGB32_Premultiplied);
            QPainter painter(&actual);
            for (const QRect &r : changing)
                painter.drawImage(r, expected, r);
            painter.end();
            differs = pictureDifference(actual, expected, QDir::currentPath() + "/screen-" + state);
            return differs.isEmpty();
        },
        3000);
    return differs.isEmpty() ? differs : state + ": " + differs;
}
#define QVERIFY_SCREEN(...)                                                                        \
    do {                                                                                           \
        const QString differs = screenDiffers(__VA_ARGS__);                                        \
        QVERIFY2(differs.isEmpty(), qPrintable(differs));                                          \
    } while (false)

// The pointer from control to control, as a person's goes (leaving one and entering the next
// land in one repaint), then away; the box ticked and unticked: only the control under the
// pointer, or the box, changes.
void hoverAndTick(const QString &main, const QString &state, qreal scale)
{
    const auto scaled = [scale](const QRect &r) {
        return QRect(r.topLeft() * scale, r.size() * scale).adjusted(-2, -2, 2, 2);
    };
    for (const QRect &control : kHoverable) {
        const QPoint at = scaled(control).center() + windowRect(main).topLeft();
        run("xdotool", {"mousemove", QString::number(at.x()), QString::number(at.y())});
        QVERIFY_SCREEN(main, state, scaled(control));
    }
    run("xdotool", kAway);
    QVERIFY_SCREEN(main, state);
    const QRect box = scaled(kHoverable[4]);
    for (const QRegion &changing : {QRegion(box), QRegion()}) {
        clickAt(main, box.center());
        QVERIFY_SCREEN(main, state, changing);
    }
}

bool completionPageShown(const QString &main)
{
    return grab(main).pixelColor(kStartup - QPoint(40, 10)).name() == "#5998ff";
}

// Linux pids of this run's live processes running the executable `name`.
QList<qint64> ours(const QString &name)
{
    QList<qint64> out;
    for (const QString &pid : QDir("/proc").entryList(QDir::Dirs | QDir::NoDotAndDotDot)) {
        const auto read = [&](const char *what) {
            QFile file("/proc/" + pid + "/" + what);
            return file.open(QFile::ReadOnly) ? file.readAll() : QByteArray();
        };
        const QString exe = QString::fromUtf8(read("cmdline").split('\0').value(0))
                                .section(QRegularExpression("[/\\\\]"), -1);
        if (exe.compare(name, Qt::CaseInsensitive) == 0 && !read("stat").contains(") Z ") &&
            read("environ").split('\0').contains("CORVALEN_E2E_RUN=" + kRun))
            out << pid.toLongLong();
    }
    return out;
}

// A Linux path as the programs under test name it.
QString native(const QString &path)
{
    return kWine && path.startsWith('/') ? "Z:" + QString(path).replace('/', '\\') : path;
}

// Both trees hold the same files with the same bytes, and `a` is not empty.
bool sameTree(const QString &a, const QString &b)
{
    return !QDir(a).isEmpty() && QProcess::execute("diff", {"-r", "-q", a, b}) == 0;
}

} // namespace

class tst_E2E : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase()
    {
        QVERIFY2(!qEnvironmentVariableIsEmpty("DISPLAY"), "needs an X display");
        QVERIFY(QFileInfo::exists(kBin + "/" + kFrontEnd));
    }

    void init()
    {
        m_output.clear();
        QFile::remove(m_dir.path() + "/engine.jsonl");
        // The reference engine's stories, or the installer's: one run is one kind.
        const bool installerStory =
            QByteArray(QTest::currentTestFunction()).startsWith("installer");
        if (installerStory != !kInstaller.isEmpty())
            QSKIP(installerStory ? "no installer given" : "the installer's run");
    }

    void cleanup()
    {
        for (const QString &name :
             {kFrontEnd, kEngine, QString("TandemoInstSvc.exe"), QString("Tandemo.exe"),
              QString("Skeinpad.exe"), QFileInfo(kInstaller).fileName()})
            for (qint64 pid : ours(name))
                ::kill(pid_t(pid), SIGKILL);
        for (QProcess *p : std::exchange(m_started, {}))
            p->close(), delete p; // killed and waited for, without a warning
        // The instance lock and the windows go with the processes.
        QTRY_VERIFY_WITH_TIMEOUT(ours(kFrontEnd).isEmpty(), 5000);
        QTest::qWait(200);
    }

    void installByClicks_data()
    {
        QTest::addColumn<QString>("mode");
        QTest::addColumn<bool>("browse");
        QTest::newRow("unicode, browsed") << "--unicode" << true;
        QTest::newRow("ansi") << "--ansi" << false;
    }
    void installByClicks()
    {
        QFETCH(QString, mode);
        QFETCH(bool, browse);
        // Wine's titles are in the ANSI code page: text outside it only in the native run.
        const QString base = m_dir.path() + "/" + mode.mid(2) + (kWine ? "" : " 目录");
        QString target = base + "/proposed/Tandemo";
        QDir().mkpath(base + "/proposed");
        QProcess *engine =
            start(kBin + "/" + kEngine, {"--log", native(logFile()), "--payload", native(kPayload),
                                         mode, "--target", native(target), "--chunk-kb", "8"});
        QString main = waitWindow(kMainFolded);
        QVERIFY(!main.isEmpty());
        QTRY_VERIFY_WITH_TIMEOUT(posted().contains("1129/1") && posted().size() >= 2, 10000);
        if (browse) {
            // The platform's folder dialog: the folder typed into its name field, then Enter.
            const QString chosen = m_dir.path() + "/chosen";
            QDir().mkpath(chosen);
            clickAt(main, kMoreOptions);
            QVERIFY(!(main = waitWindow(kMainUnfolded, 5000)).isEmpty());
            clickAt(main, kBrowse);
            QString dialog;
            QTRY_VERIFY_WITH_TIMEOUT(
                !(dialog = run("xdotool", {"search", "--onlyvisible", "--name",
                                           "^(Open Directory|Select Folder)$"}))
                     .isEmpty(),
                15000);
            QTest::qWait(500);
            run("xdotool", {"windowfocus", "--sync", dialog.section('\n', 0, 0)});
            // Windows' classic edit field knows no Ctrl+A.
            run("xdotool",
                kWine ? QStringList{"key", "Home", "shift+End"} : QStringList{"key", "ctrl+a"});
            run("xdotool", {"type", "--delay", "5", native(chosen)});
            run("xdotool", {"key", "Return"});
            // Answered for the new folder, read from the front end's title.
            QTRY_VERIFY_WITH_TIMEOUT(posted().contains("1129/0"), 15000);
            target = chosen + "/Tandemo";
        }
        clickAt(main, kCheckBox);
        clickAt(main, kInstall);
        QTRY_VERIFY_WITH_TIMEOUT(posted().contains("1124/100"), 30000);
        QTest::qWait(1800); // the completion page follows a second after 100 %
        clickAt(main, kStartup);
        QVERIFY(engine->waitForFinished(30000) && engine->exitCode() == 0);
        QVERIFY(sameTree(kPayload, target));
        const QStringList in = messages("in");
        QVERIFY(in.value(0).startsWith("1224/"));
        QCOMPARE(in.mid(1), QStringList({"1125/0", "1125/1", "1126/0"}).mid(browse ? 0 : 1));
        QVERIFY2(kWine || !log().contains("qt.qpa"), qPrintable(log())); // Wine keeps the log
    }

    // Self-test mode: a second copy refused, the suite's running members closed after the
    // question, the simulated progress run to the completion page, whose button ends it.
    void selfTest()
    {
        startApplication("Tandemo");
        startApplication("Skeinpad");
        QProcess *frontEnd = start(kBin + "/" + kFrontEnd, {});
        const QString main = waitWindow(kMainFolded);
        QVERIFY(!main.isEmpty());
        QProcess *second =
            start(kBin + "/" + kFrontEnd, {"0", "0", "0", "3.0.0.5", "0.0.0.0", "1"});
        QVERIFY(second->waitForFinished(10000));
        QCOMPARE(second->exitCode(), 0);
        QCOMPARE(ours(kFrontEnd).size(), 1);
        run("xdotool", kAway);
        QVERIFY_SCREEN(main, "choice");
        hoverAndTick(main, "choice", 1);
        if (QTest::currentTestFailed())
            return;
        clickAt(main, kMoreOptions);
        QVERIFY_SCREEN(waitWindow(kMainUnfolded, 5000), "choice-unfolded");
        clickAt(main, kMoreOptions);
        QVERIFY_SCREEN(waitWindow(kMainFolded, 5000), "choice");
        // Refused unticked: a notice over the page, which is whole once it has faded.
        clickAt(main, kInstall);
        const auto toastShown = [&] { return qGray(grab(main).pixel(238, 158)) < 128; };
        QTRY_VERIFY(toastShown());
        QVERIFY_SCREEN(main, "choice", QRect(0, 154, 476, 38));
        QTRY_VERIFY_WITH_TIMEOUT(!toastShown(), 5000);
        QVERIFY_SCREEN(main, "choice");
        clickAt(main, kClose);
        // A question lies on the page: its margin shows what is under it.
        const QString question = waitWindow(kMsgBox, 10000);
        const QImage under = reference("choice").copy(
            QRect(windowRect(question).topLeft() - windowRect(main).topLeft(), kMsgBox));
        QVERIFY_SCREEN(question, "close-question", {}, under);
        clickAt(question, kMsgCancel);
        QVERIFY_SCREEN(main, "choice");
        clickAt(main, kCheckBox);
        clickAt(main, kInstall);
        const QString running = waitWindow(kMsgBox, 10000);
        QVERIFY_SCREEN(running, "running-question", {}, under);
        clickAt(running, kMsgOK);
        QTRY_VERIFY_WITH_TIMEOUT(ours("Tandemo.exe").isEmpty(), 5000);
        QTRY_VERIFY(ours("Skeinpad.exe").isEmpty());
        for (int step = 0; step < 3; ++step, QTest::qWait(700))
            QVERIFY_SCREEN(main, "installing-50", kProgressBar);
        QTRY_VERIFY_WITH_TIMEOUT(completionPageShown(main), 15000);
        QVERIFY_SCREEN(main, "completed");
        clickAt(main, kStartup);
        QVERIFY(frontEnd->waitForFinished(5000));
        QCOMPARE(frontEnd->exitCode(), 0);
        QVERIFY(kWine || log().contains("one instance already exists, exit"));
    }

    // At 150 %, the scale every program started from now on reads: natively Xft.dpi, under Wine
    // the prefix's LogPixels.
    void choicePageAt150()
    {
        const auto setDpi = [](int dpi) {
            run("sh",
                {"-c",
                 QString(kWine ? "/usr/lib/wine/wine64 reg add 'HKCU\\Control Panel\\Desktop' "
                                 "/v LogPixels /t REG_DWORD /d %1 /f"
                               : "echo Xft.dpi: %1 | xrdb -nocpp -merge")
                     .arg(dpi)});
        };
        setDpi(144);
        const auto restore = qScopeGuard([&] { setDpi(96); });
        start(kBin + "/" + kFrontEnd, {});
        const QString main = waitWindow(kMainFolded * 1.5);
        QVERIFY(!main.isEmpty());
        run("xdotool", kAway);
        QVERIFY_SCREEN(main, "choice-150");
        hoverAndTick(main, "choice-150", 1.5);
    }

    // Windows splits the front end's command line by its own rules, not the C runtime's: there
    // `"0""` is one argument and the versions that follow are two more, the same (the overwrite
    // question); by the runtime's rules all the rest is one argument, and nothing is asked.
    void windowsCommandLine()
    {
        if (!kWine)
            QSKIP("a Windows command line");
        start(kBin + "/" + kEngine, {"--log", native(logFile()), "--command-line",
                                     "{hwnd} 0 \"0\"\" 3.0.0.5 3.0.0.5 {pid} {ipc} 1"});
        const QString box = waitWindow(kMsgBox);
        QVERIFY(!box.isEmpty());
        QVERIFY_SCREEN(box, "overwrite-question");
    }

    // With the application running: asked, closed, installed, registered, started; then the
    // same installer again, unattended, asks before it would overwrite.
    void installerInstallsThenAsksAgain()
    {
        resetInstallation();
        startApplication("Tandemo");
        start(kInstaller, {});
        QString main = waitWindow(kMainFolded, 60000);
        clickAt(main, kMoreOptions); // the proposal and the disk figures
        QVERIFY(!(main = waitWindow(kMainUnfolded, 5000)).isEmpty());
        clickAt(main, kCheckBox);
        clickAt(main, kInstall);
        clickAt(waitWindow(kMsgBox, 10000), kMsgOK);
        QTRY_VERIFY_WITH_TIMEOUT(completionPageShown(main), 60000);
        QTRY_VERIFY_WITH_TIMEOUT(ours("Tandemo.exe").isEmpty(), 5000); // the old one closed
        clickAt(main, kStartup);
        QTRY_VERIFY_WITH_TIMEOUT(m_started.last()->state() == QProcess::NotRunning, 10000);
        QCOMPARE(m_started.last()->exitCode(), 0);
        QVERIFY(ours(kFrontEnd).isEmpty()); // the installer outlives its window
        QTRY_COMPARE_WITH_TIMEOUT(ours("Tandemo.exe").size(), 1, 10000); // "start using"
        // Unattended: asked only about the version, the running application closed unasked.
        start(kInstaller, {"/unattended"});
        QString box = waitWindow(kMsgBox, 60000);
        QVERIFY_SCREEN(box, "overwrite-question");
        clickAt(box, kMsgOK);
        QVERIFY(!(main = waitWindow(kMainFolded, 10000)).isEmpty());
        QTRY_VERIFY_WITH_TIMEOUT(completionPageShown(main), 60000);
        QVERIFY(ours("Tandemo.exe").isEmpty());
    }

    // Closed at the choice page, the installer ends and leaves nothing; killed, it takes the
    // front end with it.
    // A first install, and 2.0.0.0 installed then 3.0.0.5 over it, ended on the way: the front
    // end closed, the installer killed at moments spread over the run (the front end follows),
    // a second installer started meanwhile. Afterwards one version is installed whole, its
    // registered one (2.0.0.0 as it was while the new files were being staged), or nothing at
    // all; the application's own registry value and the user's own file survive.
    void installerInterrupted_data()
    {
        QTest::addColumn<bool>("upgrade");
        QTest::addColumn<QString>("how");
        QTest::addColumn<int>("staged"); // files staged by then; -1 the choice page, 99 swapped
        QTest::newRow("first install closed") << false << "close" << -1;
        QTest::newRow("first install killed") << false << "kill" << -1;
        QTest::newRow("closed during the copy") << true << "close" << 3;
        QTest::newRow("killed at the choice page") << true << "kill" << -1;
        QTest::newRow("killed after a file") << true << "kill" << 1;
        QTest::newRow("killed halfway") << true << "kill" << 4;
        QTest::newRow("killed with everything staged") << true << "kill" << 8;
        QTest::newRow("killed after the swap") << true << "kill" << 99;
        QTest::newRow("a second installer meanwhile") << true << "second" << 3;
    }
    void installerInterrupted()
    {
        QFETCH(bool, upgrade);
        QFETCH(QString, how);
        QFETCH(int, staged);
        resetInstallation();
        if (upgrade) {
            QCOMPARE(installQuietly("2.0.0.0"), 0);
            QVERIFY(!QFileInfo::exists(m_installDir + ".new")); // a killed run's, removed
            QVERIFY(QDir(m_installDir).mkpath("notes/mine"));   // the user's own
            run("/usr/lib/wine/wine64",
                {"reg", "add", "HKCU\\Software\\Corvalen", "/v", "AddedByApp", "/d", "kept", "/f"});
        }
        const QStringList temp = tempEntries();
        QProcess *installer = start(kInstaller, {"/LOG=" + native(logFile())});
        const QString main = waitWindow(kMainFolded, 60000);
        QVERIFY(!main.isEmpty());
        // Held from the choice on, and let run 5 ms at a time up to the moment; the front end,
        // a process of its own, goes on.
        const pid_t pid = pid_t(ours(QFileInfo(kInstaller).fileName()).value(0));
        ::kill(pid, SIGSTOP);
        if (staged >= 0) {
            clickAt(main, kCheckBox);
            clickAt(main, kInstall);
        }
        const auto reached = [&] {
            if (staged == 99)
                return registry("Version") == "3.0.0.5";
            return run("find", {m_installDir + ".new", "-type", "f"})
                       .split('\n', Qt::SkipEmptyParts)
                       .size() >= staged;
        };
        QElapsedTimer clock;
        clock.start();
        while (!reached() && clock.elapsed() < 30000) {
            ::kill(pid, SIGCONT);
            QThread::usleep(5000);
            ::kill(pid, SIGSTOP);
        }
        if (how == "kill")
            ::kill(pid, SIGKILL);
        if (how == "close") {
            clickAt(main, kClose);
            clickAt(waitWindow(kMsgBox, 10000), kMsgOK);
        }
        if (how == "second") {
            QProcess *second = start(kInstaller, {});
            QVERIFY(answerBox(main));
            QVERIFY(second->waitForFinished(10000));
            QCOMPARE(second->exitCode(), 4); // another installer running
        }
        ::kill(pid, SIGCONT);
        if (how == "second") {
            QTRY_VERIFY_WITH_TIMEOUT(completionPageShown(main), 60000);
            clickAt(main, kClose);
        }
        if (how != "kill") {
            QVERIFY(installer->waitForFinished(30000));
            QCOMPARE(installer->exitCode(), how == "close" ? 1 : 0);
            QCOMPARE(tempEntries(), temp);
        }
        // The watchdog's one-second tick and the time a process takes to end.
        QTRY_VERIFY_WITH_TIMEOUT(ours(kFrontEnd).isEmpty(), 3000);
        const QString version = registry("Version");
        qInfo("%s installed", qPrintable(version));
        if (!upgrade) {
            QVERIFY(!QFileInfo::exists(m_installDir) && !QFileInfo::exists(m_installDir + ".new"));
            QCOMPARE(version, QString());
            return;
        }
        // With everything staged the swap may come within the last 5 ms: either, but whole.
        if (staged != 8)
            QCOMPARE(version, QString(how == "second" || staged == 99 ? "3.0.0.5" : "2.0.0.0"));
        QVERIFY(sameTree(payloadOf(version), m_installDir + "/resources"));
        QVERIFY(QFileInfo::exists(m_installDir + "/Tandemo.exe"));
        QVERIFY(QFileInfo::exists(m_installDir + "/notes/mine"));
        QCOMPARE(registry("AddedByApp"), QString("kept"));
        QVERIFY(how == "kill" ||
                engineLog().contains(how == "close" ? "cancelled by the user during the copy"
                                                    : "installed 3.0.0.5"));
    }

    // Deployed quietly: /S shows no window, honours /D=, replaces the same or an older version
    // and refuses a newer one; Apps & features and the shortcuts name what is installed. A swap
    // that cannot happen (the folder made immutable: Wine moves a folder whatever is open in
    // it) and a disk that fills up while staging fail cleanly and change nothing.
    void installerSilent_data()
    {
        QTest::addColumn<QString>("previous"); // installed before, quietly
        QTest::addColumn<QString>("version");  // the installer then run
        QTest::addColumn<QString>("folder");   // "", "in use": the registered one; else by /D=
        QTest::addColumn<int>("exitCode");
        const auto row = [](const char *name, const char *previous, const char *version,
                            const char *folder, int exitCode) {
            QTest::newRow(name) << QString(previous) << QString(version) << QString(folder)
                                << exitCode;
        };
        row("first install, /D=", "", "3.0.0.5", "elsewhere", 0);
        row("upgrade", "2.0.0.0", "3.0.0.5", "", 0);
        row("same version, /D= elsewhere", "3.0.0.5", "3.0.0.5", "elsewhere", 0);
        row("downgrade refused", "3.0.0.5", "2.0.0.0", "", 3);
        row("the folder in use", "2.0.0.0", "3.0.0.5", "in use", 2);
        row("disk full, /D=", "2.0.0.0", "3.0.0.5", "full", 2);
    }
    void installerSilent()
    {
        QFETCH(QString, previous);
        QFETCH(QString, version);
        QFETCH(QString, folder);
        QFETCH(int, exitCode);
        resetInstallation();
        const QString target = folder.isEmpty() || folder == "in use"
                                   ? m_installDir
                                   : m_dir.path() + "/" + folder + "/Corvalen";
        const QString given = target == m_installDir ? QString() : "/D=" + native(target);
        const auto undo = qScopeGuard([&] {
            run("chattr", {"-i", m_installDir});
            run("umount", {m_dir.path() + "/full"});
        });
        if (folder == "full" && (!QDir().mkpath(m_dir.path() + "/full") ||
                                 QProcess::execute("mount", {"-t", "tmpfs", "-o", "size=12m", "e2e",
                                                             m_dir.path() + "/full"}) != 0))
            QSKIP("cannot mount a tmpfs here: needs root");
        QVERIFY(previous.isEmpty() || installQuietly(previous, folder == "full" ? given : "") == 0);
        if (folder == "full") { // room for a third of the new version
            const qint64 fill = QStorageInfo(target).bytesAvailable() - 2500000;
            QVERIFY(run("fallocate", {"-l", QString::number(fill), m_dir.path() + "/full/filler"})
                        .isEmpty());
        }
        if (folder == "in use" && QProcess::execute("chattr", {"+i", m_installDir}) != 0)
            QSKIP("cannot make a folder immutable here: needs root and ext4");
        QCOMPARE(installQuietly(version, given), exitCode);
        const QString installed = exitCode == 0 ? version : previous;
        QCOMPARE(registry("Version"), installed);
        QCOMPARE(registry("DisplayVersion", kUninstallKey), installed);
        QVERIFY(registry("InstallLocation", kUninstallKey)
                    .endsWith("\\" + QFileInfo(target).fileName()));
        QVERIFY(sameTree(payloadOf(installed), target + "/resources"));
        QVERIFY(!QFileInfo::exists(target + ".new"));
        QVERIFY(exitCode != 2 || engineLog().contains("failed; nothing changed"));
        for (const char *shortcut : kShortcutFolders)
            QVERIFY(QFileInfo::exists(userFolder(shortcut) + "/Corvalen.lnk"));
        QVERIFY(!engineLog().contains("front end")); // never started
    }

    // The uninstaller with the application running: asked (not with /S), the application
    // closed, what the install put removed, shortcuts and keys included; the user's file stays.
    // Started from the folder it runs from NSIS's copy; as Apps & features starts it quietly, it
    // returns only when all is done. Nothing of it stays in %TEMP%.
    void installerUninstall_data()
    {
        QTest::addColumn<bool>("quiet");
        QTest::newRow("asked, from the folder") << false;
        QTest::newRow("QuietUninstallString") << true;
    }
    void installerUninstall()
    {
        QFETCH(bool, quiet);
        resetInstallation();
        QCOMPARE(installQuietly("3.0.0.5"), 0);
        QVERIFY(QDir(m_installDir).mkpath("notes/mine")); // the user's own
        start(m_installDir + "/Tandemo.exe", {"60"});
        QTRY_COMPARE_WITH_TIMEOUT(ours("Tandemo.exe").size(), 1, 10000);
        const QStringList temp = tempEntries();
        const auto folder = [this] {
            return QDir(m_installDir).entryList(QDir::AllEntries | QDir::NoDotAndDotDot);
        };
        if (quiet) { // "C:\...\Uninstall.exe" /S _?=C:\...
            const QString command = registry("QuietUninstallString", kUninstallKey);
            QProcess *p = start(command.section('"', 1, 1), // a Windows path: as it stands
                                command.section('"', 2).split(' ', Qt::SkipEmptyParts));
            QVERIFY(p->waitForFinished(30000));
            QCOMPARE(p->exitCode(), 0);
            // Wine cannot rename a running program's file: there it goes a moment later.
            QCOMPARE(folder().filter(QRegularExpression("^(?!Uninstall.exe$)")),
                     QStringList{"notes"});
        } else {
            start(m_installDir + "/Uninstall.exe", {});
            QVERIFY(answerBox());
        }
        QTRY_COMPARE_WITH_TIMEOUT(folder(), QStringList{"notes"}, 20000);
        QTRY_COMPARE_WITH_TIMEOUT(tempEntries(), temp, 10000);
        QVERIFY(ours("Tandemo.exe").isEmpty());
        QTRY_COMPARE(registry("DisplayVersion", kUninstallKey) + registry("Version"), QString());
        for (const char *shortcut : kShortcutFolders)
            QVERIFY(!QFileInfo::exists(userFolder(shortcut) + "/Corvalen.lnk"));
        if (quiet) { // installed again at once: what the uninstaller deletes late is its own
            QCOMPARE(installQuietly("3.0.0.5"), 0);
            QTest::qWait(7000);
            QVERIFY(QFileInfo::exists(m_installDir + "/Uninstall.exe"));
        }
    }

    // What a publisher ships, as the user's machine has it: every program signed (the test
    // command's throwaway certificate), the uninstaller the installer wrote included, with the
    // product's version resource; the icon where a person sees one; the front end's manifest
    // asks for nothing it sets itself.
    void installerArtefacts_data()
    {
        QTest::addColumn<QString>("file"); // the installed one, else the one packed
        QTest::addColumn<bool>("icon");
        for (const char *file : {"Tandemo.exe", "Uninstall.exe", "CorvalenSetup.exe"})
            QTest::newRow(file) << file << true;
        for (const char *file : {"TandemoInstSvc.exe", "corvalen.dll"})
            QTest::newRow(file) << file << false;
        QTest::newRow("the installer") << kInstaller << true;
    }
    void installerArtefacts()
    {
        QFETCH(QString, file);
        QFETCH(bool, icon);
        resetInstallation();
        QCOMPARE(installQuietly("3.0.0.5"), 0);
        for (const QString &dir : {m_installDir, kWindowsBin + "/../packed"})
            if (!file.contains('/') && QFileInfo::exists(dir + "/" + file))
                file = dir + "/" + file;
        const QString cert = qEnvironmentVariable("CORVALEN_SIGN_CERT");
        if (!cert.isEmpty())
            QVERIFY(run("osslsigncode", {"verify", "-CAfile", cert, "-in", file})
                        .contains("Signature verification: ok"));
        const QStringList version =
            run("sh", {"-c", "wrestool --raw -x -t16 '" + file + "' | strings -el"}).split('\n');
        for (const char *key : {"CompanyName", "FileDescription", "FileVersion", "LegalCopyright",
                                "OriginalFilename", "ProductName", "ProductVersion"})
            QVERIFY2(version.indexOf(key) > 0 && !version.value(version.indexOf(key) + 1).isEmpty(),
                     key);
        QCOMPARE(version.value(version.indexOf("ProductName") + 1), QString("Corvalen"));
        QCOMPARE(version.value(version.indexOf("ProductVersion") + 1), QString("3.0.0.5"));
        QCOMPARE(run("wrestool", {"-l", "-t14", file}).isEmpty(), !icon);
        const QString manifest = run("wrestool", {"--raw", "-x", "-t24", file}); // the front end's
        QVERIFY(!file.endsWith("CorvalenSetup.exe") ||
                (manifest.contains("asInvoker") && !manifest.contains("dpiAware") &&
                 !manifest.contains("activeCodePage")));
    }

private:
    // Enter on the first visible window titled "Corvalen…" but `except`: the default button of a
    // message box of the installer's. False when none came.
    bool answerBox(const QString &except = QString())
    {
        QString box;
        const auto shown = [&] {
            box = run("xdotool", {"search", "--onlyvisible", "--name", "^Corvalen"})
                      .split('\n')
                      .filter(QRegularExpression("^(?!" + except + "$)."))
                      .value(0);
            return !box.isEmpty();
        };
        if (!QTest::qWaitFor(shown, 30000))
            return false;
        run("xdotool", {"windowfocus", "--sync", box, "key", "Return"});
        return true;
    }
    QString payloadOf(const QString &version) const
    {
        return kWindowsBin + "/../installer-payload-" + version;
    }
    QProcess *start(const QString &program, const QStringList &args)
    {
        auto *p = new QProcess;
        m_started << p;
        QProcessEnvironment env = QProcessEnvironment::systemEnvironment();
        env.insert("CORVALEN_E2E_RUN", kRun);
        p->setProcessEnvironment(env);
        p->setProcessChannelMode(QProcess::MergedChannels);
        connect(p, &QProcess::readyRead, [this, p] { m_output += p->readAll(); });
        if (kWine)
            p->start("/usr/lib/wine/wine64", QStringList(native(program)) + args);
        else
            p->start(program, args);
        p->waitForStarted();
        return p;
    }
    // A member of the suite running: a copy of the application's stand-in under its name.
    void startApplication(const QString &name)
    {
        const QString copy = m_dir.path() + "/" + name + ".exe";
        QFile::remove(copy);
        QVERIFY(QFile::copy(kBin + "/Tandemo.exe", copy));
        QFile::setPermissions(copy, QFile::ExeOwner | QFile::ReadOwner);
        start(copy, {"60"});
        QTRY_COMPARE_WITH_TIMEOUT(ours(name + ".exe").size(), 1, 10000);
    }
    // The engine's log: the reference engine's JSON lines, or the installer's own.
    QString logFile() const { return m_dir.path() + "/engine.jsonl"; }
    QByteArray engineLog() const
    {
        QFile file(logFile());
        return file.open(QFile::ReadOnly) ? file.readAll() : QByteArray();
    }
    // "msg/wParam" of every message the engine logged in one direction.
    QStringList messages(const QString &dir) const
    {
        QStringList out;
        for (const QByteArray &line : engineLog().split('\n')) {
            const QJsonObject o = QJsonDocument::fromJson(line).object();
            if (o["event"] == "message" && o["dir"] == dir)
                out << QString("%1/%2").arg(o["msg"].toInt()).arg(o["wp"].toString());
        }
        return out;
    }
    QStringList posted() const { return messages("out"); }
    QString log() const { return QString::fromUtf8(m_output); }

    // No Corvalen in the prefix: neither its files nor its registry key.
    void resetInstallation()
    {
        const QString users = qEnvironmentVariable("WINEPREFIX") + "/drive_c/users/";
        m_installDir = users +
                       QDir(users)
                           .entryList({"*"}, QDir::Dirs | QDir::NoDotAndDotDot)
                           .filter(QRegularExpression("^(?!Public$)"))
                           .value(0) +
                       "/AppData/Local/Programs/Tandemo";
        // A killed run's stage stays: the next run removes it.
        QDir(m_installDir).removeRecursively();
        QDir(m_installDir + ".old").removeRecursively();
        for (const QString &key : {QString("HKCU\\Software\\Corvalen"), kUninstallKey})
            run("/usr/lib/wine/wine64", {"reg", "delete", key, "/f"});
        for (const char *shortcut : kShortcutFolders)
            QFile::remove(userFolder(shortcut) + "/Corvalen.lnk");
    }
    // A folder of the Wine user's, such as "Temp" or "Desktop".
    QString userFolder(const QString &name) const
    {
        return QFileInfo(m_installDir + "/../../../../" + name).absoluteFilePath();
    }
    // What the user's %TEMP% holds, but the installer's log, which stays.
    QStringList tempEntries() const
    {
        return QDir(userFolder("Temp"))
            .entryList(QDir::AllEntries)
            .filter(QRegularExpression("^(?!CorvalenInstaller.log$)"));
    }
    QString registry(const QString &value, const QString &key = "HKCU\\Software\\Corvalen")
    {
        const QString out = run("/usr/lib/wine/wine64", {"reg", "query", key, "/v", value});
        return QRegularExpression(value + "\\s+REG_SZ\\s+(.+)").match(out).captured(1).trimmed();
    }
    // Runs that version's installer with /S (and `more`), logging to logFile(): its exit code.
    int installQuietly(const QString &version, const QString &more = QString())
    {
        QProcess *p = start(kInstaller.section(".exe", 0, 0) +
                                (version == "3.0.0.5" ? "" : "-" + version) + ".exe",
                            QStringList{"/S", "/LOG=" + native(logFile())} +
                                (more.isEmpty() ? QStringList() : QStringList{more}));
        return p->waitForFinished(60000) ? p->exitCode() : -1;
    }

    QTemporaryDir m_dir;
    QList<QProcess *> m_started;
    QByteArray m_output;
    QString m_installDir;
};

QTEST_MAIN(tst_E2E)
#include "tst_e2e.moc"
