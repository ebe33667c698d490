// The real programs, one user story per function, clicked through xdotool on the X display
// that scripts/test.sh provides: the native build, or with CORVALEN_WINDOWS_BIN the Windows
// build under Wine (scripts/test-windows.sh provides the prefix). Wine's front end logs to
// the debugger, so outcomes come from the engine's JSON log, the files, /proc and the screen.
#include <QtTest>

#include <QJsonDocument>
#include <QJsonObject>
#include <QScreen>

#include <csignal>

namespace {

const QString kLinuxBin = CORVALEN_BIN_DIR;
const QString kWindowsBin = qEnvironmentVariable("CORVALEN_WINDOWS_BIN");
const bool kWine = !kWindowsBin.isEmpty();
const QString kExe = kWine ? ".exe" : "";
const QString kFrontEnd = "CorvalenSetup" + kExe, kEngine = "corvalen-engine" + kExe;
// Every process this run starts carries it, and so do their children: whatever else runs on
// the machine is never touched.
const QByteArray kRun = QByteArray::number(QCoreApplication::applicationPid());
const QByteArray kMark = "CORVALEN_E2E_RUN=" + kRun;

const QSize kLoading(416, 136), kMainFolded(476, 346), kMainUnfolded(476, 426), kMsgBox(416, 226);
// Inside the windows, shadow margin included.
const QPoint kCheckBox(112, 259), kInstall(238, 215), kStartup(238, 269), kMoreOptions(229, 308),
    kBrowse(408, 355), kMsgOK(293, 185), kMsgCancel(143, 185), kMsgSingle(208, 185);

QString xdotool(const QStringList &args)
{
    QProcess p;
    p.start("xdotool", args);
    p.waitForFinished(10000);
    return QString::fromUtf8(p.readAllStandardOutput()).trimmed();
}

QRect windowRect(const QString &id)
{
    const auto m = QRegularExpression("Position: (-?\\d+),(-?\\d+).*Geometry: (\\d+)x(\\d+)",
                                      QRegularExpression::DotMatchesEverythingOption)
                       .match(xdotool({"getwindowgeometry", id}));
    return QRect(m.captured(1).toInt(), m.captured(2).toInt(), m.captured(3).toInt(),
                 m.captured(4).toInt());
}

// The visible top-level window titled "Corvalen" of that size, or "".
QString visibleWindow(const QSize &size)
{
    for (const QString &id :
         xdotool({"search", "--onlyvisible", "--name", "^Corvalen$"}).split('\n'))
        if (!id.isEmpty() && windowRect(id).size() == size)
            return id;
    return QString();
}

QString waitWindow(const QSize &size, int ms = 30000)
{
    QString id;
    return QTest::qWaitFor([&] { return !(id = visibleWindow(size)).isEmpty(); }, ms) ? id : "";
}

void clickAt(const QString &window, QPoint p)
{
    p += windowRect(window).topLeft();
    xdotool({"mousemove", QString::number(p.x()), QString::number(p.y())});
    QTest::qWait(60); // the hover first, as a person's pointer would
    xdotool({"click", "1"});
}

QImage grab(const QString &window)
{
    const QRect r = windowRect(window);
    return QGuiApplication::primaryScreen()
        ->grabWindow(0, r.x(), r.y(), r.width(), r.height())
        .toImage();
}

// Linux pids of this run's live processes running the executable `name`.
QList<qint64> ours(const QString &name)
{
    QList<qint64> out;
    for (const QString &entry : QDir("/proc").entryList(QDir::Dirs | QDir::NoDotAndDotDot)) {
        QFile cmdline("/proc/" + entry + "/cmdline"), environ("/proc/" + entry + "/environ"),
            stat("/proc/" + entry + "/stat");
        if (!cmdline.open(QFile::ReadOnly) || !environ.open(QFile::ReadOnly) ||
            !stat.open(QFile::ReadOnly))
            continue;
        const QString argv0 = QString::fromUtf8(cmdline.readAll().split('\0').value(0));
        const QByteArray state = stat.readAll().split(')').last().mid(1, 1);
        if (argv0.section(QRegularExpression("[/\\\\]"), -1).compare(name, Qt::CaseInsensitive) ==
                0 &&
            state != "Z" && environ.readAll().split('\0').contains(kMark))
            out << entry.toLongLong();
    }
    return out;
}

// A Linux path as the programs under test name it.
QString native(const QString &path)
{
    return kWine ? "Z:" + QString(path).replace('/', '\\') : path;
}

QList<QJsonObject> readLog(const QString &path)
{
    QList<QJsonObject> out;
    QFile f(path);
    if (f.open(QFile::ReadOnly))
        for (const QByteArray &line : f.readAll().split('\n'))
            if (!line.isEmpty())
                out << QJsonDocument::fromJson(line).object();
    return out;
}

// "msg/wParam" of every message the engine logged in one direction.
QStringList messages(const QList<QJsonObject> &log, const QString &dir)
{
    QStringList out;
    for (const QJsonObject &o : log)
        if (o["event"] == "message" && o["dir"] == dir)
            out << QString("%1/%2").arg(o["msg"].toInt()).arg(o["wp"].toString());
    return out;
}

// Every file of `a` is in `b` with the same bytes, and `a` is not empty.
bool sameTree(const QString &a, const QString &b)
{
    QDirIterator it(a, QDir::Files, QDirIterator::Subdirectories);
    int n = 0;
    for (; it.hasNext(); ++n) {
        QFile x(it.next()), y(b + "/" + QDir(a).relativeFilePath(it.filePath()));
        if (!x.open(QFile::ReadOnly) || !y.open(QFile::ReadOnly) || x.readAll() != y.readAll())
            return false;
    }
    return n > 0;
}

} // namespace

class tst_E2E : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase()
    {
        QVERIFY2(!qEnvironmentVariableIsEmpty("DISPLAY"), "needs an X display");
        QVERIFY(QFileInfo::exists((kWine ? kWindowsBin : kLinuxBin) + "/CorvalenSetup" + kExe));
        // The application stand-in: a few hundred KB in two folders, one name outside ASCII.
        m_payload = m_dir.path() + "/payload";
        QDir().mkpath(m_payload + "/bin");
        QFile a(m_payload + "/Tandemo.exe"), b(m_payload + "/bin/名字.dat");
        QVERIFY(a.open(QFile::WriteOnly) && b.open(QFile::WriteOnly));
        for (int i = 0; i < 40000; ++i)
            a.write(QByteArray::number(i * 7919) + "\n");
        b.write(QByteArray(300000, 'x'));
    }

    void init()
    {
        m_output.clear();
        QFile::remove(m_dir.path() + "/engine.jsonl");
    }

    void cleanup()
    {
        for (const QString &name : {kFrontEnd, kEngine, QString("TandemoInstSvc.exe"),
                                    QString("Tandemo.exe"), QString("Skeinpad.exe")})
            for (qint64 pid : ours(name))
                ::kill(pid_t(pid), SIGKILL);
        for (QProcess *p : m_started) {
            p->kill();
            p->waitForFinished(5000);
        }
        qDeleteAll(m_started);
        m_started.clear();
        m_engine = nullptr;
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
        startEngine({mode, "--target", native(target), "--chunk-kb", "64"});
        QString main = waitWindow(kMainFolded);
        QVERIFY(!main.isEmpty());
        QTRY_VERIFY_WITH_TIMEOUT(posted("1129/1") && messages(log(), "out").size() >= 2, 10000);
        if (browse) {
            // The platform's folder dialog: the folder typed into its name field, then Enter.
            const QString chosen = m_dir.path() + "/chosen";
            QDir().mkpath(chosen);
            clickAt(main, kMoreOptions);
            QVERIFY(!(main = waitWindow(kMainUnfolded, 5000)).isEmpty());
            clickAt(main, kBrowse);
            QString dialog;
            QTRY_VERIFY_WITH_TIMEOUT(!(dialog = xdotool({"search", "--onlyvisible", "--name",
                                                         "^(Open Directory|Select Folder)$"}))
                                          .isEmpty(),
                                     15000);
            QTest::qWait(500);
            xdotool({"windowfocus", "--sync", dialog.section('\n', 0, 0)});
            // Windows' classic edit field knows no Ctrl+A.
            xdotool(kWine ? QStringList{"key", "Home", "shift+End"} : QStringList{"key", "ctrl+a"});
            xdotool({"type", "--delay", "5", native(chosen)});
            xdotool({"key", "Return"});
            // Answered for the new folder, read from the front end's title.
            QTRY_VERIFY_WITH_TIMEOUT(posted("1129/0"), 15000);
            target = chosen + "/Tandemo";
        }
        clickAt(main, kCheckBox);
        clickAt(main, kInstall);
        QTRY_VERIFY_WITH_TIMEOUT(posted("1124/100"), 30000);
        QTest::qWait(1800); // the completion page follows a second after 100 %
        clickAt(main, kStartup);
        QCOMPARE(waitEngine(), 0);
        QVERIFY(sameTree(m_payload, target));
        const QStringList in = messages(log(), "in");
        QVERIFY(in.value(0).startsWith("1224/"));
        QCOMPARE(in.mid(1), browse ? QStringList({"1125/0", "1125/1", "1126/0"})
                                   : QStringList({"1125/1", "1126/0"}));
        // Progress only rises and ends with exactly 100.
        int last = -1;
        for (const QString &m : messages(log(), "out").filter(QRegularExpression("^1124/"))) {
            QVERIFY(m.section('/', 1).toInt() > last);
            last = m.section('/', 1).toInt();
        }
        QCOMPARE(last, 100);
        if (!kWine) {
            QVERIFY(frontEndLog().contains(browse ? "strInitPath from ipcFile"
                                                  : "strInitPath from Title"));
            QVERIFY2(!frontEndLog().contains("qt.qpa"), qPrintable(frontEndLog()));
        }
    }

    void unattended()
    {
        const QString target = m_dir.path() + "/unattended/Tandemo";
        QDir().mkpath(m_dir.path() + "/unattended");
        startEngine({"--ansi", "--without-agreement", "--unattended", "--target", native(target)});
        QCOMPARE(waitEngine(), 0);
        QVERIFY(sameTree(m_payload, target));
        const QStringList in = messages(log(), "in");
        QCOMPARE(in.mid(1), QStringList("1125/1")); // no click, no agreement
        QVERIFY(messages(log(), "out").endsWith("1126/0"));
    }

    void versionQuestions_data()
    {
        QTest::addColumn<QString>("oldVersion");
        QTest::addColumn<QPoint>("button");
        QTest::addColumn<bool>("proceeds");
        QTest::newRow("same version, overwrite") << "3.0.0.5" << kMsgOK << true;
        QTest::newRow("higher version refused") << "3.1.0.0" << kMsgSingle << false;
    }

    void versionQuestions()
    {
        QFETCH(QString, oldVersion);
        QFETCH(QPoint, button);
        QFETCH(bool, proceeds);
        startEngine({"--new-version", "3.0.0.5", "--old-version", oldVersion, "--target",
                     native(m_dir.path() + "/question/Tandemo")});
        const QString box = waitWindow(kMsgBox);
        QVERIFY(!box.isEmpty());
        clickAt(box, button);
        if (proceeds) {
            QVERIFY(!waitWindow(kMainFolded, 10000).isEmpty());
            QTRY_COMPARE(messages(log(), "in").size(), 1);
            QVERIFY(messages(log(), "in").first().startsWith("1224/"));
        } else {
            QCOMPARE(waitEngine(10000), 1);
            QCOMPARE(messages(log(), "in"), QStringList("1127/0"));
            QCOMPARE(log().last()["frontEndCode"].toInt(), 0);
        }
    }

    void killed_data()
    {
        QTest::addColumn<QString>("victim");
        QTest::newRow("engine: the front end follows") << "corvalen-engine";
        QTest::newRow("front end: nothing half-installed") << "CorvalenSetup";
    }

    void killed()
    {
        QFETCH(QString, victim);
        const QString target = m_dir.path() + "/killed/Tandemo";
        startEngine({"--without-agreement", "--chunk-kb", "1", "--target", native(target)});
        QTRY_VERIFY_WITH_TIMEOUT(messages(log(), "in").contains("1125/1"), 30000);
        QCOMPARE(ours(victim + kExe).size(), 1);
        ::kill(pid_t(ours(victim + kExe).first()), SIGKILL);
        QElapsedTimer clock;
        clock.start();
        if (victim == "CorvalenSetup") {
            QCOMPARE(waitEngine(10000), 2);
            QVERIFY(!QFileInfo::exists(target));
            QVERIFY(!QFileInfo::exists(target + ".corvalen-partial"));
            return;
        }
        // The watchdog's one-second tick, and the time a process takes to end: a generous bound,
        // the figure printed.
        QTRY_VERIFY_WITH_TIMEOUT(ours(kFrontEnd).isEmpty(), 3000);
        qInfo("front end gone %lld ms after the engine", clock.elapsed());
    }

    void helperServiceRestarted()
    {
        startEngine({"--target", native(m_dir.path() + "/svc/Tandemo")});
        QTRY_COMPARE_WITH_TIMEOUT(ours("TandemoInstSvc.exe").size(), 1, 30000);
        const qint64 first = ours("TandemoInstSvc.exe").first();
        QFile cmdline(QString("/proc/%1/cmdline").arg(first));
        QVERIFY(cmdline.open(QFile::ReadOnly));
        const QList<QByteArray> argv = cmdline.readAll().split('\0');
        if (!kWine) // the front end's and the engine's ids
            QCOMPARE(argv.mid(1, 2),
                     QList<QByteArray>({QByteArray::number(ours(kFrontEnd).value(0)),
                                        QByteArray::number(m_engine->processId())}));
        ::kill(pid_t(first), SIGKILL);
        // Another one at the watchdog's next tick; a process takes its time to start under
        // Wine, so the bound is generous and the figure printed.
        QElapsedTimer clock;
        clock.start();
        QList<qint64> seen;
        const auto restarted = [&] {
            seen = ours("TandemoInstSvc.exe");
            return seen.size() == 1 && seen.first() != first;
        };
        QTRY_VERIFY2_WITH_TIMEOUT(restarted(),
                                  qPrintable(QString("services now: %1").arg(seen.size())), 10000);
        qInfo("service running again %lld ms after it was killed", clock.elapsed());
    }

    void selfTestWithTheSuiteRunning()
    {
        // Running members of the suite: copies of a small sleeper under their names.
        for (const char *name : {"Tandemo", "Skeinpad"}) {
            const QString copy = m_dir.path() + "/" + name + ".exe";
            QFile::remove(copy);
            QVERIFY(QFile::copy((kWine ? kWindowsBin : kLinuxBin) + "/os_sleeper" + kExe, copy));
            QFile::setPermissions(copy, QFile::ExeOwner | QFile::ReadOwner);
            start(copy, {"60"});
        }
        QTRY_VERIFY_WITH_TIMEOUT(ours("Tandemo.exe").size() == 1, 10000);
        QProcess *frontEnd = start("CorvalenSetup", {});
        const QString main = waitWindow(kMainFolded);
        QVERIFY(!main.isEmpty());
        clickAt(main, kCheckBox);
        clickAt(main, kInstall);
        QString box = waitWindow(kMsgBox, 10000);
        clickAt(box, kMsgCancel);
        QTest::qWait(500);
        QCOMPARE(ours("Skeinpad.exe").size(), 1); // asked, declined
        clickAt(main, kInstall);
        box = waitWindow(kMsgBox, 10000);
        clickAt(box, kMsgOK);
        QTRY_VERIFY_WITH_TIMEOUT(ours("Tandemo.exe").isEmpty(), 5000);
        QTRY_VERIFY(ours("Skeinpad.exe").isEmpty());
        // The simulated progress runs to the completion page; its button ends the program.
        QTRY_COMPARE_WITH_TIMEOUT(grab(main).pixelColor(kStartup - QPoint(40, 10)).name(),
                                  QString("#5998ff"), 15000);
        clickAt(main, kStartup);
        QVERIFY(frontEnd->waitForFinished(5000));
        QCOMPARE(frontEnd->exitCode(), 0);
    }

    void startupLog_data()
    {
        QTest::addColumn<QStringList>("args");
        QTest::addColumn<QStringList>("lines");
        QTest::newRow("none: self test")
            << QStringList()
            << QStringList({"self test: yes", "hIPCWnd= 0", "iInstallerProcId= 0"});
        QTest::newRow("exactly one")
            << QStringList("0")
            << QStringList({"self test: no", "hIPCWnd= 0", "iInstallerProcId= 0"});
    }

    void startupLog()
    {
        if (kWine)
            QSKIP("the front end's log does not leave Wine");
        QFETCH(QStringList, args);
        QFETCH(QStringList, lines);
        QProcess *frontEnd = start("CorvalenSetup", args);
        QTRY_VERIFY_WITH_TIMEOUT(frontEndLog().contains("bIsUnicodeNsis"), 10000);
        frontEnd->kill();
        frontEnd->waitForFinished();
        QStringList seen;
        for (const QString &line : frontEndLog().split('\n'))
            if (lines.contains(line.trimmed()))
                seen << line.trimmed();
        QCOMPARE(seen, lines);
    }

    void secondInstance()
    {
        start("CorvalenSetup", {});
        QVERIFY(!waitWindow(kMainFolded).isEmpty());
        QProcess *second = start("CorvalenSetup", {"0", "0", "0", "3.0.0.5", "0.0.0.0", "1"});
        QVERIFY(second->waitForFinished(10000));
        QCOMPARE(second->exitCode(), 0);
        QCOMPARE(ours(kFrontEnd).size(), 1);
        if (!kWine)
            QVERIFY(frontEndLog().contains("one instance already exists, exit"));
    }

    void pagesMatchLinux()
    {
        if (!kWine)
            QSKIP("the Windows pages against these");
        QList<QImage> windows, linux;
        capturePages(true, windows);
        capturePages(false, linux);
        QCOMPARE(windows.size(), 5);
        QCOMPARE(linux.size(), 5);
        const QString out = qEnvironmentVariable("CORVALEN_PAGES_OUT", m_dir.path());
        QDir().mkpath(out);
        const char *names[] = {"1-loading", "2-choice-folded", "3-choice-unfolded", "4-installing",
                               "5-completed"};
        for (int i = 0; i < 5; ++i) {
            QCOMPARE(windows[i].size(), linux[i].size());
            // Inside the shadow margin: the share of pixels off by more than 48 in a channel.
            const QRect inner = QRect(QPoint(), linux[i].size()).adjusted(8, 8, -8, -8);
            QImage diff = linux[i].convertToFormat(QImage::Format_RGB32);
            int differing = 0;
            for (int y = inner.top(); y <= inner.bottom(); ++y)
                for (int x = inner.left(); x <= inner.right(); ++x) {
                    const QRgb p = windows[i].pixel(x, y), q = linux[i].pixel(x, y);
                    if (qAbs(qRed(p) - qRed(q)) > 48 || qAbs(qGreen(p) - qGreen(q)) > 48 ||
                        qAbs(qBlue(p) - qBlue(q)) > 48) {
                        diff.setPixel(x, y, qRgb(255, 0, 0));
                        ++differing;
                    }
                }
            windows[i].save(QString("%1/windows-%2.png").arg(out, names[i]));
            linux[i].save(QString("%1/linux-%2.png").arg(out, names[i]));
            diff.save(QString("%1/diff-%2.png").arg(out, names[i]));
            const double share = double(differing) / (inner.width() * inner.height());
            qInfo("%s: %.2f %% of the pixels differ from the Linux page", names[i], 100 * share);
            // Another text rasteriser, moving figures; layout, colours and images must agree.
            QVERIFY2(share < 0.08, names[i]);
        }
    }

private:
    // `program` is a file of the build's bin folder without ".exe", or an absolute path.
    QProcess *start(QString program, const QStringList &args, bool windows = kWine);
    void startEngine(const QStringList &args, bool windows = kWine)
    {
        const QString log = m_dir.path() + "/engine.jsonl";
        m_engine = start("corvalen-engine",
                         QStringList{"--log", windows ? native(log) : log, "--payload",
                                     windows ? native(m_payload) : m_payload} +
                             args,
                         windows);
    }

    int waitEngine(int ms = 30000)
    {
        return m_engine->waitForFinished(ms) ? m_engine->exitCode() : -1;
    }
    QList<QJsonObject> log() const { return readLog(m_dir.path() + "/engine.jsonl"); }
    bool posted(const QString &m) const { return messages(log(), "out").contains(m); }
    QString frontEndLog() const { return QString::fromUtf8(m_output); }
    // The five pages a person sees: loading, choice folded and unfolded, installing, completed.
    void capturePages(bool windows, QList<QImage> &pages)
    {
        init();
        const QString target = m_dir.path() + (windows ? "/pages-windows" : "/pages-linux");
        QDir().mkpath(target);
        startEngine({"--target", windows ? native(target + "/Tandemo") : target + "/Tandemo",
                     "--chunk-kb", "8", "--unattended"},
                    windows);
        QString window = waitWindow(kLoading);
        pages << grab(window);
        window = waitWindow(kMainFolded, 10000);
        QTRY_VERIFY_WITH_TIMEOUT(messages(log(), "out").size() >= 2, 10000); // path and space
        QTest::qWait(300);
        pages << grab(window);
        clickAt(window, kMoreOptions);
        window = waitWindow(kMainUnfolded, 5000);
        QTest::qWait(300);
        pages << grab(window);
        clickAt(window, kCheckBox);
        clickAt(window, kInstall);
        QTRY_VERIFY_WITH_TIMEOUT(
            !messages(log(), "out").filter(QRegularExpression("^1124/[4-9]")).isEmpty(), 30000);
        pages << grab(waitWindow(kMainFolded, 5000));
        QTRY_VERIFY_WITH_TIMEOUT(posted("1124/100"), 30000);
        QTest::qWait(1600);
        pages << grab(window);
        waitEngine();
        cleanup();
    }

    QTemporaryDir m_dir;
    QList<QProcess *> m_started;
    QProcess *m_engine = nullptr;
    QByteArray m_output;
    QString m_payload;
};

QProcess *tst_E2E::start(QString program, const QStringList &args, bool windows)
{
    if (!program.startsWith('/'))
        program = (windows ? kWindowsBin : kLinuxBin) + "/" + program + (windows ? ".exe" : "");
    auto *p = new QProcess;
    m_started << p;
    QProcessEnvironment env = QProcessEnvironment::systemEnvironment();
    env.insert("CORVALEN_E2E_RUN", kRun);
    p->setProcessEnvironment(env);
    p->setProcessChannelMode(QProcess::MergedChannels);
    connect(p, &QProcess::readyRead, [this, p] { m_output += p->readAll(); });
    if (windows)
        p->start("/usr/lib/wine/wine64", QStringList(native(program)) + args);
    else
        p->start(program, args);
    p->waitForStarted();
    return p;
}

QTEST_MAIN(tst_E2E)
#include "tst_e2e.moc"
