// The front end driven by the reference engine, one user story per function, clicked through
// xdotool: the native build, or with CORVALEN_WINDOWS_BIN the Windows build under Wine. Under
// Wine the front end logs to the debugger, so outcomes come from the engine's JSON log, the
// files, /proc and the screen.
#include "desktop.h"

#include <QJsonDocument>
#include <QJsonObject>
#include <QScopeGuard>

using namespace e2e;

namespace {

const QString kEngine = "corvalen-engine" + kExe;
const QString kPayload = CORVALEN_PAYLOAD_DIR; // the application's files: any folder of files
// The choice page's controls: all that hovering one may change (更多选项 and its arrow at once).
const QRect kHoverable[] = {{GEOMETRY_HOVER_INSTALL},
                            {GEOMETRY_HOVER_CLOSE},
                            {GEOMETRY_HOVER_AGREEMENT},
                            {GEOMETRY_HOVER_PRIVACY},
                            {kCheckBox - QPoint(8, 8), QSize(16, 16)},
                            {GEOMETRY_HOVER_OPTIONS}};
const QRect kProgressBar(GEOMETRY_PROGRESS_BAR);

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
        QVERIFY2(!kWine || !qEnvironmentVariableIsEmpty("WINEPREFIX"),
                 "needs the Wine prefix that scripts/test-windows.sh makes");
        QVERIFY(QFileInfo::exists(kBin + "/" + kFrontEnd));
    }

    void init() { QFile::remove(logFile()); }

    void cleanup()
    {
        m_programs.killAll(
            {kFrontEnd, kEngine, "TandemoInstSvc.exe", "Tandemo.exe", "Skeinpad.exe"});
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

    // With the keys alone, as a person who cannot use a mouse: the window given the input
    // focus, Tab to the agreement (its ring in sight), Space, back to 安装, Return; Return again
    // on 开始使用.
    void installByKeys()
    {
        const QString target = m_dir.path() + "/keys/Tandemo";
        QDir().mkpath(m_dir.path() + "/keys");
        QProcess *engine =
            start(kBin + "/" + kEngine, {"--log", native(logFile()), "--payload", native(kPayload),
                                         "--target", native(target)});
        const QString main = waitWindow(kMainFolded);
        QVERIFY(!main.isEmpty());
        QTRY_VERIFY_WITH_TIMEOUT(posted().contains("1129/1") && posted().size() >= 2, 10000);
        run("xdotool", kAway);
        run("xdotool", {"windowfocus", "--sync", main, "key", "Tab"});
        QVERIFY_SCREEN(main, "choice-focus-agreement");
        run("xdotool", {"key", "--delay", "100", "space", "shift+Tab", "Return"});
        QTRY_VERIFY_WITH_TIMEOUT(completionPageShown(main), 30000);
        run("xdotool", {"key", "Return"});
        QVERIFY(engine->waitForFinished(30000) && engine->exitCode() == 0);
        QVERIFY(sameTree(kPayload, target));
        QCOMPARE(messages("in").mid(1), QStringList({"1125/1", "1126/0"}));
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

private:
    QProcess *start(const QString &program, const QStringList &args)
    {
        return m_programs.start(program, args);
    }
    void startApplication(const QString &name)
    {
        QVERIFY(m_programs.startApplication(name, m_dir.path()));
    }
    // The reference engine's log: one JSON object a line.
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
    QString log() const { return QString::fromUtf8(m_programs.output); }

    QTemporaryDir m_dir;
    Programs m_programs;
};

QTEST_MAIN(tst_E2E)
#include "tst_e2e.moc"
