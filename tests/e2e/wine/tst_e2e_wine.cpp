// The Windows programs under Wine: corvalen-engine.exe starts CorvalenSetup.exe, they talk
// through real PostMessageA and GetWindowTextA, and the test clicks Wine's windows, which are
// X windows. scripts/test-windows.sh provides the prefix, the display and the Windows build.
// The front end logs to the debugger there, so what it did is read from the engine's log,
// the installed files, the processes and the screen.
#include "../common/e2e.h"

#include <csignal>

using namespace e2e;

namespace {

const QString kLinuxBin = CORVALEN_BIN_DIR;
const char kWine[] = "/usr/lib/wine/wine64";
const QStringList kOurPrograms{"CorvalenSetup.exe", "corvalen-engine.exe", "TandemoInstSvc.exe",
                               "Tandemo.exe"};

QString windowsBin()
{
    return qEnvironmentVariable("CORVALEN_WINDOWS_BIN");
}

// A Linux path as Wine's Z: drive names it.
QString winePath(const QString &path)
{
    return "Z:" + QString(path).replace('/', '\\');
}

bool isZombieOrGone(qint64 pid)
{
    QFile stat(QString("/proc/%1/stat").arg(pid));
    if (!stat.open(QFile::ReadOnly))
        return true;
    const QByteArray text = stat.readAll();
    const int close = text.lastIndexOf(')');
    return close < 0 || text.mid(close + 2, 1) == "Z";
}

// Linux pids of this prefix's processes running the Windows program `exe`.
QList<qint64> winePids(const QString &exe)
{
    const QByteArray prefix = "WINEPREFIX=" + qgetenv("WINEPREFIX");
    QList<qint64> out;
    const QStringList entries = QDir("/proc").entryList(QDir::Dirs | QDir::NoDotAndDotDot);
    for (const QString &entry : entries) {
        bool ok = false;
        const qint64 pid = entry.toLongLong(&ok);
        QFile cmdline("/proc/" + entry + "/cmdline");
        if (!ok || !cmdline.open(QFile::ReadOnly))
            continue;
        const QString argv0 = QString::fromUtf8(cmdline.readAll().split('\0').value(0));
        // A bare name when the program was started by one (CreateProcess's search).
        const QString name = argv0.section('\\', -1);
        if (name.compare(exe, Qt::CaseInsensitive) != 0 || isZombieOrGone(pid))
            continue;
        QFile environ("/proc/" + entry + "/environ");
        if (environ.open(QFile::ReadOnly) && environ.readAll().split('\0').contains(prefix))
            out << pid;
    }
    return out;
}

// Share of the pixels inside the shadow margin whose colour differs by more than `tolerance`
// in a channel; `diff` marks them in red on a faded copy of `a`.
double differingShare(const QImage &a, const QImage &b, int tolerance, QImage *diff)
{
    const QRect inner = QRect(QPoint(), a.size()).adjusted(8, 8, -8, -8);
    *diff = a.convertToFormat(QImage::Format_RGB32);
    int differing = 0;
    for (int y = 0; y < a.height(); ++y)
        for (int x = 0; x < a.width(); ++x) {
            const QRgb p = a.pixel(x, y);
            const QRgb q = b.pixel(x, y);
            const bool differs = qAbs(qRed(p) - qRed(q)) > tolerance ||
                                 qAbs(qGreen(p) - qGreen(q)) > tolerance ||
                                 qAbs(qBlue(p) - qBlue(q)) > tolerance;
            if (differs && inner.contains(x, y))
                ++differing;
            diff->setPixel(x, y,
                           differs
                               ? qRgb(255, 0, 0)
                               : qRgb(128 + qGray(p) / 2, 128 + qGray(p) / 2, 128 + qGray(p) / 2));
        }
    return double(differing) / (inner.width() * inner.height());
}

} // namespace

class tst_E2EWine : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase();
    void init();
    void cleanup();
    void installByClicks_data();
    void installByClicks();
    void versionQuestions_data();
    void versionQuestions();
    void engineKilled();
    void helperServiceRestarted();
    void runningApplicationClosed();
    void pagesMatchLinux();

private:
    QProcess *startEngine(const QStringList &args, bool windows = true);
    int waitEngine(int ms = 30000);
    QList<QJsonObject> log() const { return readLog(m_dir.path() + "/engine.jsonl"); }
    bool posted(const QString &message) const { return messages(log(), "out").contains(message); }
    bool postedProgressFrom(int percent) const
    {
        for (const QString &m : messages(log(), "out"))
            if (m.startsWith("1124/") && m.section('/', 1).toInt() >= percent)
                return true;
        return false;
    }
    void capturePages(bool windows, QList<QImage> &pages);

    QTemporaryDir m_dir;
    QProcess *m_engine = nullptr;
    bool m_native = false;
    QByteArray m_output;
    QString m_payload;
};

void tst_E2EWine::initTestCase()
{
    QVERIFY2(!qEnvironmentVariableIsEmpty("DISPLAY"), "needs an X display");
    QVERIFY2(QFileInfo(windowsBin() + "/CorvalenSetup.exe").exists(),
             "CORVALEN_WINDOWS_BIN must name build-windows/bin");
    QVERIFY2(!qEnvironmentVariableIsEmpty("WINEPREFIX"), "needs the tier's own WINEPREFIX");
    m_payload = makePayload(m_dir.path(), "data.dat");
    QVERIFY(!m_payload.isEmpty());
}

void tst_E2EWine::init()
{
    m_output.clear();
    QFile::remove(m_dir.path() + "/engine.jsonl");
}

void tst_E2EWine::cleanup()
{
    for (const QString &exe : kOurPrograms)
        for (qint64 pid : winePids(exe))
            ::kill(static_cast<pid_t>(pid), SIGKILL);
    if (m_engine) {
        // A native front end (the pages' yardstick) has a Linux pid in the log.
        const qint64 nativeFrontEnd = m_native ? loggedNumber(log(), "started", "frontEndPid") : 0;
        if (nativeFrontEnd > 0)
            ::kill(static_cast<pid_t>(nativeFrontEnd), SIGKILL);
        m_engine->kill();
        m_engine->waitForFinished(5000);
        delete m_engine;
        m_engine = nullptr;
    }
    // The instance lock and the windows go with the processes.
    QTRY_VERIFY_WITH_TIMEOUT(winePids("CorvalenSetup.exe").isEmpty(), 5000);
}

QProcess *tst_E2EWine::startEngine(const QStringList &args, bool windows)
{
    m_engine = new QProcess;
    m_engine->setProcessChannelMode(QProcess::MergedChannels);
    connect(m_engine, &QProcess::readyRead, [this] { m_output += m_engine->readAll(); });
    const QString log = m_dir.path() + "/engine.jsonl";
    m_native = !windows;
    if (windows)
        m_engine->start(kWine, QStringList{winePath(windowsBin() + "/corvalen-engine.exe"), "--log",
                                           winePath(log), "--payload", winePath(m_payload)} +
                                   args);
    else
        m_engine->start(kLinuxBin + "/corvalen-engine",
                        QStringList{"--log", log, "--payload", m_payload} + args);
    m_engine->waitForStarted();
    return m_engine;
}

int tst_E2EWine::waitEngine(int ms)
{
    if (!m_engine->waitForFinished(ms))
        return -1;
    return m_engine->exitCode();
}

void tst_E2EWine::installByClicks_data()
{
    QTest::addColumn<QString>("mode");
    QTest::addColumn<bool>("browse");
    QTest::newRow("unicode, browsed") << "--unicode" << true;
    QTest::newRow("ansi") << "--ansi" << false;
}

void tst_E2EWine::installByClicks()
{
    QFETCH(QString, mode);
    QFETCH(bool, browse);
    const QString base = m_dir.path() + "/" + mode.mid(2);
    QString target = base + "/proposed/Tandemo";
    QDir().mkpath(base + "/proposed");
    QVERIFY(startEngine({mode, "--target", winePath(target), "--chunk-kb", "64"}));
    QString main;
    QTRY_VERIFY_WITH_TIMEOUT(!(main = visibleWindow(kMainFolded)).isEmpty(), 30000);
    QTRY_VERIFY_WITH_TIMEOUT(posted("1129/1"), 10000);
    if (browse) {
        // Windows' own folder dialog (Wine titles it "Select Folder"): the folder typed into
        // its name field, then Enter.
        const QString chosen = base + "/chosen";
        QDir().mkpath(chosen);
        clickAt(main, kMoreOptions);
        QTRY_VERIFY_WITH_TIMEOUT(!(main = visibleWindow(kMainUnfolded)).isEmpty(), 5000);
        clickAt(main, kBrowse);
        QString dialog;
        QTRY_VERIFY_WITH_TIMEOUT(!(dialog = xdotool({"search", "--onlyvisible", "--name",
                                                     "^(Open Directory|Select Folder)$"}))
                                      .isEmpty(),
                                 15000);
        dialog = dialog.section('\n', 0, 0);
        QTest::qWait(500);
        xdotool({"windowfocus", "--sync", dialog});
        xdotool({"key", "Home", "shift+End"}); // the classic edit field knows no Ctrl+A
        xdotool({"type", "--delay", "5", winePath(chosen)});
        xdotool({"key", "Return"});
        QTRY_VERIFY_WITH_TIMEOUT(messages(log(), "in").contains("1125/0"), 15000);
        // Answered for the new folder, read from the front end's title.
        QTRY_VERIFY_WITH_TIMEOUT(posted("1129/0"), 5000);
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
    // Installed where the proposal (IPC file or title) or the browse pointed, so the front end
    // read the proposal through the channel of the mode.
    QVERIFY(progressRisesTo100(log()));
}

void tst_E2EWine::versionQuestions_data()
{
    QTest::addColumn<QString>("oldVersion");
    QTest::addColumn<QPoint>("button");
    QTest::addColumn<bool>("proceeds");
    QTest::newRow("same version, overwrite") << "3.0.0.5" << kMsgOK << true;
    QTest::newRow("higher version refused") << "3.1.0.0" << kMsgSingle << false;
}

void tst_E2EWine::versionQuestions()
{
    QFETCH(QString, oldVersion);
    QFETCH(QPoint, button);
    QFETCH(bool, proceeds);
    startEngine({"--new-version", "3.0.0.5", "--old-version", oldVersion, "--target",
                 winePath(m_dir.path() + "/question/Tandemo")});
    QString box;
    QTRY_VERIFY_WITH_TIMEOUT(!(box = visibleWindow(kMsgBox)).isEmpty(), 30000);
    clickAt(box, button);
    if (proceeds) {
        QTRY_VERIFY_WITH_TIMEOUT(!visibleWindow(kMainFolded).isEmpty(), 10000);
        QVERIFY(messages(log(), "in").value(0).startsWith("1224/"));
    } else {
        QCOMPARE(waitEngine(10000), 1);
        QCOMPARE(messages(log(), "in"), QStringList("1127/0"));
        QVERIFY(!log().isEmpty());
        QCOMPARE(log().last()["frontEndCode"].toInt(), 0);
    }
}

void tst_E2EWine::engineKilled()
{
    startEngine({"--without-agreement", "--chunk-kb", "1", "--target",
                 winePath(m_dir.path() + "/killed/Tandemo")});
    QTRY_VERIFY_WITH_TIMEOUT(messages(log(), "in").contains("1125/1"), 30000);
    const QList<qint64> frontEnd = winePids("CorvalenSetup.exe");
    QCOMPARE(frontEnd.size(), 1);
    QElapsedTimer clock;
    m_engine->kill();
    m_engine->waitForFinished();
    clock.start();
    // The watchdog's one-second tick, and the time Wine takes to end a process; the bound is
    // generous, the figure is printed.
    QTRY_VERIFY_WITH_TIMEOUT(isZombieOrGone(frontEnd.first()), 3000);
    qInfo("front end gone %lld ms after the engine", clock.elapsed());
}

void tst_E2EWine::helperServiceRestarted()
{
    startEngine({"--target", winePath(m_dir.path() + "/svc/Tandemo")});
    QTRY_COMPARE_WITH_TIMEOUT(winePids("TandemoInstSvc.exe").size(), 1, 30000);
    const qint64 first = winePids("TandemoInstSvc.exe").first();
    ::kill(static_cast<pid_t>(first), SIGKILL);
    // Another one within the watchdog's second.
    const auto restarted = [&] {
        const QList<qint64> now = winePids("TandemoInstSvc.exe");
        return now.size() == 1 && now.first() != first;
    };
    QTRY_VERIFY_WITH_TIMEOUT(restarted(), 3000);
}

void tst_E2EWine::runningApplicationClosed()
{
    // A running "Tandemo.exe": a small Windows program under that name.
    const QString app = m_dir.path() + "/Tandemo.exe";
    QFile::remove(app);
    QVERIFY(QFile::copy(windowsBin() + "/os_sleeper.exe", app));
    QProcess running;
    running.start(kWine, {winePath(app), "60"});
    QVERIFY(running.waitForStarted());
    QTRY_COMPARE_WITH_TIMEOUT(winePids("Tandemo.exe").size(), 1, 10000);

    QProcess frontEnd; // self-test mode: no engine
    frontEnd.setProcessChannelMode(QProcess::MergedChannels);
    frontEnd.start(kWine, {winePath(windowsBin() + "/CorvalenSetup.exe")});
    QString main;
    QTRY_VERIFY_WITH_TIMEOUT(!(main = visibleWindow(kMainFolded)).isEmpty(), 30000);
    clickAt(main, kCheckBox);
    clickAt(main, kInstall);
    QString box;
    QTRY_VERIFY_WITH_TIMEOUT(!(box = visibleWindow(kMsgBox)).isEmpty(), 10000);
    QCOMPARE(running.state(), QProcess::Running); // asked first
    clickAt(box, kMsgOK);
    QVERIFY(running.waitForFinished(5000));
    frontEnd.kill();
    frontEnd.waitForFinished();
}

// The five pages a person sees, as the demo saves them: loading, choice folded and unfolded,
// installing, completed.
void tst_E2EWine::capturePages(bool windows, QList<QImage> &pages)
{
    init();
    const QString target = m_dir.path() + (windows ? "/pages-windows" : "/pages-linux");
    QDir().mkpath(target);
    startEngine({"--target", windows ? winePath(target + "/Tandemo") : target + "/Tandemo",
                 "--chunk-kb", "8", "--unattended"},
                windows);
    QString window;
    QTRY_VERIFY_WITH_TIMEOUT(!(window = visibleWindow(kLoading)).isEmpty(), 30000);
    pages << grab(window);
    QTRY_VERIFY_WITH_TIMEOUT(!(window = visibleWindow(kMainFolded)).isEmpty(), 10000);
    QTRY_VERIFY_WITH_TIMEOUT(messages(log(), "out").size() >= 2, 10000); // path and space
    QTest::qWait(300);
    pages << grab(window);
    clickAt(window, kMoreOptions);
    QTRY_VERIFY_WITH_TIMEOUT(!(window = visibleWindow(kMainUnfolded)).isEmpty(), 5000);
    QTest::qWait(300);
    pages << grab(window);
    clickAt(window, kCheckBox);
    clickAt(window, kInstall);
    QTRY_VERIFY_WITH_TIMEOUT(postedProgressFrom(40), 30000);
    QTRY_VERIFY(!(window = visibleWindow(kMainFolded)).isEmpty());
    pages << grab(window);
    QTRY_VERIFY_WITH_TIMEOUT(posted("1124/100"), 30000);
    QTest::qWait(1600);
    pages << grab(window);
    waitEngine();
    cleanup();
}

void tst_E2EWine::pagesMatchLinux()
{
    QList<QImage> windows;
    capturePages(true, windows);
    QCOMPARE(windows.size(), 5);
    QList<QImage> linux;
    capturePages(false, linux);
    QCOMPARE(linux.size(), 5);
    const QString out = qEnvironmentVariable("CORVALEN_PAGES_OUT", m_dir.path());
    QDir().mkpath(out);
    const char *names[] = {"1-loading", "2-choice-folded", "3-choice-unfolded", "4-installing",
                           "5-completed"};
    for (int i = 0; i < 5; ++i) {
        QCOMPARE(windows[i].size(), linux[i].size()); // geometry
        QImage diff;
        const double share = differingShare(windows[i], linux[i], 48, &diff);
        windows[i].save(QString("%1/windows-%2.png").arg(out, names[i]));
        linux[i].save(QString("%1/linux-%2.png").arg(out, names[i]));
        diff.save(QString("%1/diff-%2.png").arg(out, names[i]));
        qInfo("%s: %.2f %% of the pixels differ from the Linux page", names[i], 100 * share);
        // Text is drawn by another rasteriser and the loading and progress figures move; the
        // rest (layout, colours, images) must be the same.
        QVERIFY2(share < 0.08, names[i]);
    }
}

QTEST_MAIN(tst_E2EWine)
#include "tst_e2e_wine.moc"
