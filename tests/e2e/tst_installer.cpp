// CorvalenInstaller.exe under Wine (CORVALEN_INSTALLER; scripts/test-windows.sh builds it and
// provides the prefix), one story per function, each judged by what the user's machine holds
// afterwards: the installed files byte for byte (the user's own among them), the registry, the
// shortcuts, %TEMP%, the exit code, the log and the screen. Wine gives every process the full
// token of an administrator, as Windows does after "Run as administrator": the installer is run
// as a user's ordinary program through corvalen-unelevated.exe, and without it where that is
// the story.
#include "desktop.h"

#include <QDirIterator>
#include <QScopeGuard>
#include <QStorageInfo>

using namespace e2e;

namespace {

const QString kInstaller = qEnvironmentVariable("CORVALEN_INSTALLER");
const QString kUnelevated = kWindowsBin + "/corvalen-unelevated.exe";
// Where the installer puts its shortcuts, in the Wine user's folder.
const char *const kShortcutFolders[] = {"Desktop",
                                        "AppData/Roaming/Microsoft/Windows/Start Menu/Programs"};
const QString kRegKey = "HKCU\\Software\\Corvalen";
const QString kUninstallKey =
    "HKCU\\Software\\Microsoft\\Windows\\CurrentVersion\\Uninstall\\Corvalen";
const QString kNewest = "3.0.0.5";

// A tree's files by relative path with their bytes, and its folders with nothing in them as
// "path/"; hidden ones too: a work folder left behind is a difference.
using Tree = QMap<QString, QByteArray>;
Tree tree(const QString &root)
{
    Tree out;
    QDirIterator it(root, QDir::AllEntries | QDir::NoDotAndDotDot | QDir::Hidden | QDir::System,
                    QDirIterator::Subdirectories);
    while (it.hasNext()) {
        QFile file(it.next());
        const QString relative = QDir(root).relativeFilePath(file.fileName());
        if (!it.fileInfo().isDir())
            out.insert(relative, file.open(QFile::ReadOnly) ? file.readAll() : "unreadable");
        else if (QDir(file.fileName())
                     .isEmpty(QDir::AllEntries | QDir::NoDotAndDotDot | QDir::Hidden))
            out.insert(relative + "/", {});
    }
    return out;
}

// What a user keeps in the application's folder: a file at the top, one among ours, and a
// folder the newest version starts to ship.
Tree plantUserData(const QString &folder)
{
    const Tree data{{"mine.txt", "the user's own notes\n"},
                    {"resources/mine.txt", QByteArray("\x00\xff user data", 12)},
                    {"plugins/user.plg", "a plug-in of the user's\n"}};
    for (auto it = data.begin(); it != data.end(); ++it) {
        QDir().mkpath(QFileInfo(folder + "/" + it.key()).path());
        QFile file(folder + "/" + it.key());
        file.open(QFile::WriteOnly);
        file.write(it.value());
    }
    return data;
}

QString installerOf(const QString &version)
{
    return kInstaller.section(".exe", 0, 0) + (version == kNewest ? "" : "-" + version) + ".exe";
}

// The working folder a shortcut (a Shell Link file) names.
QString shortcutWorkingFolder(const QString &path)
{
    QFile file(path);
    const QByteArray link = file.open(QFile::ReadOnly) ? file.readAll() : QByteArray();
    const auto u16 = [&](int at) { return quint16(uchar(link[at]) | uchar(link[at + 1]) << 8); };
    const auto u32 = [&](int at) { return quint32(u16(at)) | quint32(u16(at + 2)) << 16; };
    if (link.size() < 76)
        return QString();
    const quint32 flags = u32(20);
    int at = 76;
    if (flags & 0x1) // an item id list
        at += 2 + u16(at);
    if (flags & 0x2) // link info
        at += int(u32(at));
    for (const quint32 string : {0x4u, 0x8u, 0x10u}) { // name, relative path, working folder
        if (!(flags & string))
            continue;
        const int length = u16(at);
        if (string == 0x10) // Wine counts the terminating zero too
            return (flags & 0x80
                        ? QString::fromUtf16(
                              reinterpret_cast<const char16_t *>(link.constData() + at + 2), length)
                        : QString::fromLatin1(link.mid(at + 2, length)))
                .section(QChar(0), 0, 0);
        at += 2 + length * (flags & 0x80 ? 2 : 1);
    }
    return QString();
}

} // namespace

class tst_Installer : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase()
    {
        QVERIFY2(!qEnvironmentVariableIsEmpty("DISPLAY"), "needs an X display");
        QVERIFY2(kWine && QFileInfo::exists(kInstaller) &&
                     !qEnvironmentVariableIsEmpty("WINEPREFIX"),
                 "needs the installer and the Wine prefix that scripts/test-windows.sh makes");
        const QString users = qEnvironmentVariable("WINEPREFIX") + "/drive_c/users/";
        m_user = QDir(users)
                     .entryList({"*"}, QDir::Dirs | QDir::NoDotAndDotDot)
                     .filter(QRegularExpression("^(?!Public$)"))
                     .value(0);
        m_profile = users + m_user;
        m_installDir = m_profile + "/AppData/Local/Programs/Tandemo";
    }

    void init()
    {
        resetInstallation();
        QFile::remove(logFile());
    }

    void cleanup()
    {
        m_programs.killAll({kFrontEnd, "TandemoInstSvc.exe", "Tandemo.exe",
                            QFileInfo(kInstaller).fileName(), "Uninstall.exe", "Au_.exe",
                            "CorvalenInstaller-2.0.0.0.exe", "corvalen-unelevated.exe"});
        QTRY_VERIFY_WITH_TIMEOUT(ours(kFrontEnd).isEmpty(), 5000);
        QTest::qWait(200);
    }

    // With the application running: asked, closed, installed, registered, started in its own
    // folder as the shortcuts start it; then the same installer again, unattended, asks before
    // it would overwrite.
    void installsThenAsksAgain()
    {
        QVERIFY(m_programs.startApplication("Tandemo", m_dir.path()));
        const QString report = m_dir.path() + "/started-in";
        qputenv("CORVALEN_TANDEMO_REPORT", native(report).toLocal8Bit());
        const auto unset = qScopeGuard([] { qunsetenv("CORVALEN_TANDEMO_REPORT"); });
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
        QTRY_VERIFY_WITH_TIMEOUT(m_programs.last()->state() == QProcess::NotRunning, 10000);
        QCOMPARE(m_programs.last()->exitCode(), 0);
        QVERIFY(ours(kFrontEnd).isEmpty()); // the installer outlives its window
        verifyState(kNewest, m_installDir, {});
        QTRY_COMPARE_WITH_TIMEOUT(ours("Tandemo.exe").size(), 1, 10000); // "start using"
        QFile started(report);
        QVERIFY(started.open(QFile::ReadOnly));
        QCOMPARE(QString(started.readAll()).trimmed(), windowsPath(m_installDir));
        for (const char *folder : kShortcutFolders)
            QCOMPARE(shortcutWorkingFolder(userFolder(folder) + "/Corvalen.lnk"),
                     windowsPath(m_installDir));
        // Unattended: asked only about the version, the running application closed unasked.
        start(kInstaller, {"/unattended"});
        const QString box = waitWindow(kMsgBox, 60000);
        QVERIFY_SCREEN(box, "overwrite-question");
        clickAt(box, kMsgOK);
        QVERIFY(!(main = waitWindow(kMainFolded, 10000)).isEmpty());
        QTRY_VERIFY_WITH_TIMEOUT(completionPageShown(main), 60000);
        QVERIFY(ours("Tandemo.exe").isEmpty());
    }

    // A first install, and 2.0.0.0 installed then the newest over it, ended on the way: the
    // front end closed, the installer killed at moments spread over the run (the front end
    // follows). After the next run of an installer, one
    // version is installed whole and registered as such, or nothing at all; the application's
    // own registry value and the user's files survive byte for byte.
    void interrupted_data()
    {
        QTest::addColumn<bool>("upgrade");
        QTest::addColumn<QString>("how");
        QTest::addColumn<int>("staged"); // files staged by then; -1 the choice page, 99 committing
        QTest::newRow("first install closed") << false << "close" << -1;
        QTest::newRow("first install killed") << false << "kill" << -1;
        QTest::newRow("first install killed halfway") << false << "kill" << 4;
        QTest::newRow("closed during the copy") << true << "close" << 3;
        QTest::newRow("killed at the choice page") << true << "kill" << -1;
        QTest::newRow("killed after a file") << true << "kill" << 1;
        QTest::newRow("killed halfway") << true << "kill" << 4;
        QTest::newRow("killed with everything staged") << true << "kill" << 9;
        QTest::newRow("killed while registering, then the older installer") << true << "kill" << 99;
    }
    void interrupted()
    {
        QFETCH(bool, upgrade);
        QFETCH(QString, how);
        QFETCH(int, staged);
        Tree user;
        if (upgrade) {
            QCOMPARE(installQuietly("2.0.0.0"), 0);
            user = plantUserData(m_installDir);
            run(kWine64, {"reg", "add", kRegKey, "/v", "AddedByApp", "/d", "kept", "/f"});
        }
        const QStringList temp = tempEntries();
        QProcess *installer = start(kInstaller, {"/LOG=" + native(logFile())});
        const QString main = waitWindow(kMainFolded, 60000);
        QVERIFY(!main.isEmpty());
        // Held from the choice on, and let run 5 ms at a time up to the moment; the front end,
        // a process of its own, goes on.
        const pid_t pid = pid_t(ours(QFileInfo(kInstaller).fileName()).value(0));
        ::kill(pid, SIGSTOP);
        if (staged >= 0)
            clickAt(main, kCheckBox), clickAt(main, kInstall);
        const auto reached = [&] {
            if (staged == 99)
                return registry("Version") == kNewest;
            return run("find", {m_installDir + "/", "-path", "*/.corvalen-*/new/*", "-type", "f"})
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
        if (how == "close")
            clickAt(main, kClose), clickAt(waitWindow(kMsgBox, 10000), kMsgOK);
        ::kill(pid, SIGCONT);
        if (how == "close") {
            QVERIFY(installer->waitForFinished(30000));
            QCOMPARE(installer->exitCode(), 1);
            QCOMPARE(tempEntries(), temp);
        }
        // The watchdog's one-second tick and the time a process takes to end.
        QTRY_VERIFY_WITH_TIMEOUT(ours(kFrontEnd).isEmpty(), 3000);
        if (how == "kill") {
            // The next run puts it right first thing: the older installer, which then refuses
            // the newest or installs its own again; or a run that stops at a folder it refuses.
            const int exitCode = staged == 99
                                     ? installQuietly("2.0.0.0")
                                     : installQuietly(kNewest, "/D=" + windowsPath(m_profile));
            QVERIFY(QList<int>({0, 3, 5}).contains(exitCode));
            QVERIFY(staged < 0 || engineLog().contains("recover: run "));
        }
        QString version = registry("Version");
        qInfo("%s installed", qPrintable(version));
        if (upgrade && staged != 9 && staged != 99)
            QCOMPARE(version, QString("2.0.0.0"));
        verifyState(version, m_installDir, user);
        QCOMPARE(registry("AddedByApp"), QString(upgrade ? "kept" : ""));
        QVERIFY(how == "kill" || engineLog().contains("cancelled"));
    }

    // Deployed quietly: /S shows no window, honours /D=, replaces the same or an older version
    // and refuses a newer one, an unreadable one, a folder of somebody else's files, a folder
    // that is the user's own, an administrator's run; a swap that cannot happen (a folder of
    // ours made immutable: Wine renames whatever is open) and a disk that fills up fail cleanly.
    // What the user keeps in the folder and beside it ("<folder>.old") stays byte for byte.
    void silent_data()
    {
        QTest::addColumn<QString>("previous"); // installed before, quietly
        QTest::addColumn<QString>("version");  // the installer then run
        QTest::addColumn<QString>("folder");   // where, and how
        QTest::addColumn<int>("exitCode");
        const auto row = [](const char *name, const char *previous, const char *version,
                            const char *folder, int exitCode) {
            QTest::newRow(name) << QString(previous) << QString(version) << QString(folder)
                                << exitCode;
        };
        row("first install, /D=", "", "3.0.0.5", "elsewhere", 0);
        row("upgrade", "2.0.0.0", "3.0.0.5", "registered", 0);
        row("the same version moved elsewhere", "3.0.0.5", "3.0.0.5", "elsewhere", 0);
        row("downgrade refused", "3.0.0.5", "2.0.0.0", "registered", 3);
        row("an unreadable installed version", "3.0.beta", "3.0.0.5", "registered", 3);
        row("the folder in use", "2.0.0.0", "3.0.0.5", "in use", 2);
        row("disk full", "2.0.0.0", "3.0.0.5", "full", 2);
        row("a folder of somebody else's files", "", "3.0.0.5", "occupied", 5);
        row("the user's profile", "", "3.0.0.5", "profile", 5);
        row("run as administrator", "2.0.0.0", "3.0.0.5", "elevated", 6);
        row("a folder named with %USERNAME%, installed and uninstalled", "", "3.0.0.5", "percent",
            0);
    }
    void silent()
    {
        QFETCH(QString, previous);
        QFETCH(QString, version);
        QFETCH(QString, folder);
        QFETCH(int, exitCode);
        const QString target = folder == "elsewhere" || folder == "full" || folder == "occupied"
                                   ? m_dir.path() + "/" + folder + "/Corvalen"
                               : folder == "percent" ? m_dir.path() + "/x%USERNAME%y/Corvalen"
                               : folder == "profile" ? m_profile
                                                     : m_installDir;
        const QString given = target == m_installDir ? QString() : "/D=" + windowsPath(target);
        const QString installedIn =
            folder == "full" || folder == "occupied" ? target : m_installDir;
        const auto undo = qScopeGuard([&] {
            run("chattr", {"-i", m_installDir + "/resources"});
            run("umount", {m_dir.path() + "/full"});
        });
        if (folder == "full" && (!QDir().mkpath(m_dir.path() + "/full") ||
                                 QProcess::execute("mount", {"-t", "tmpfs", "-o", "size=12m", "e2e",
                                                             m_dir.path() + "/full"}) != 0))
            QSKIP("cannot mount a tmpfs here: needs root");
        if (previous == "3.0.beta") {
            QCOMPARE(installQuietly(kNewest), 0);
            run(kWine64, {"reg", "add", kRegKey, "/v", "Version", "/d", previous, "/f"});
        } else if (!previous.isEmpty()) {
            QCOMPARE(installQuietly(previous, folder == "full" ? given : ""), 0);
        }
        Tree user, besides = plantUserData(installedIn + ".old"); // the user's backup copy
        if (!previous.isEmpty() || folder == "occupied")
            user = plantUserData(installedIn);
        if (folder == "full") { // room for a third of the new version
            const qint64 fill = QStorageInfo(target).bytesAvailable() - 2500000;
            QVERIFY(run("fallocate", {"-l", QString::number(fill), m_dir.path() + "/full/filler"})
                        .isEmpty());
        }
        if (folder == "in use" && QProcess::execute("chattr", {"+i", m_installDir + "/resources"}))
            QSKIP("cannot make a folder immutable here: needs root and ext4");
        // An %USERNAME% expanded would lead to this folder of the same user's.
        const QString decoy = m_dir.path() + "/x" + m_user + "y/Corvalen";
        const Tree decoyData = plantUserData(decoy);
        const Tree before = tree(installedIn);

        QCOMPARE(installQuietly(version, given, folder != "elevated"), exitCode);
        QVERIFY(!engineLog().contains("front end")); // never started
        if (previous == "3.0.beta") {                // nothing touched, the unreadable value kept
            QCOMPARE(tree(installedIn), before);
            QCOMPARE(registry("Version"), previous);
        } else if (exitCode == 0) {
            verifyState(version, target, folder == "elsewhere" ? Tree() : user);
            if (previous == version) // the earlier copy gone, the user's files in it kept
                QCOMPARE(tree(m_installDir), user);
        } else {
            verifyState(previous.isEmpty() ? QString() : previous, installedIn, user);
            QVERIFY(exitCode != 2 || engineLog().contains("failed; nothing changed"));
        }
        QCOMPARE(tree(installedIn + ".old"), besides);
        if (folder == "percent") {
            QCOMPARE(uninstallQuietly(target), 0);
            QTRY_VERIFY_WITH_TIMEOUT(!QFileInfo::exists(target), 10000);
        }
        QCOMPARE(tree(decoy), decoyData);
    }

    // The uninstaller, the application running: asked (not with /S), the application closed,
    // what the install put removed with the registration and the shortcuts; the user's files
    // stay. From the folder it runs from NSIS's copy; as Apps & features starts it, in place, it
    // returns when all is done. It refuses, or fails changing nothing, with its own exit code: a
    // no, another installer running, a file it cannot move; it removes nothing outside the
    // folder whatever its list says, only the registration when the list is gone, and nothing
    // at all as the uninstaller of a copy in another folder.
    void uninstall_data()
    {
        QTest::addColumn<QString>("how");
        QTest::addColumn<int>("exitCode");
        QTest::addColumn<bool>("removed");
        QTest::newRow("asked, from the folder") << "asked" << 0 << true;
        QTest::newRow("QuietUninstallString") << "quiet" << 0 << true;
        QTest::newRow("declined") << "declined" << 1 << false;
        QTest::newRow("another installer running") << "busy" << 4 << false;
        QTest::newRow("a file that cannot be moved") << "in use" << 2 << false;
        QTest::newRow("a hostile file list") << "hostile" << 0 << true;
        QTest::newRow("no file list") << "no list" << 0 << false;
        QTest::newRow("the uninstaller of a copy elsewhere") << "copy" << 5 << false;
    }
    void uninstall()
    {
        QFETCH(QString, how);
        QFETCH(int, exitCode);
        QFETCH(bool, removed);
        QCOMPARE(installQuietly(kNewest), 0);
        Tree user = plantUserData(m_installDir);
        start(m_installDir + "/Tandemo.exe", {"60"});
        QTRY_COMPARE_WITH_TIMEOUT(ours("Tandemo.exe").size(), 1, 10000);
        const QStringList temp = tempEntries();
        const auto undo = qScopeGuard([&] { run("chattr", {"-i", m_installDir + "/resources"}); });
        const QStringList outside{m_installDir + "/../outside.txt",
                                  m_dir.path() + "/outside/outside.txt"};
        if (how == "hostile") {
            QFile list(m_installDir + "/Uninstall.lst");
            QVERIFY(list.open(QFile::Append));
            list.write("..\\outside.txt\r\n" + windowsPath(m_dir.path()).toUtf8() +
                       "\\outside\\outside.txt\r\n\\\\server\\share\\x\r\nTandemo.exe:stream\r\n"
                       "resources\\..\\..\\outside.txt\r\nresources\\\r\nC:outside.txt\r\n");
            for (const QString &file : outside)
                QDir().mkpath(QFileInfo(file).path()), QFile::copy(kUnelevated, file);
        }
        if (how == "no list") {
            QVERIFY(QFile::remove(m_installDir + "/Uninstall.lst"));
            user = tree(m_installDir);
        }
        if (how == "in use" && QProcess::execute("chattr", {"+i", m_installDir + "/resources"}))
            QSKIP("cannot make a folder immutable here: needs root and ext4");
        if (how == "busy") { // the same version: it asks first
            start(kInstaller, {});
            QVERIFY(!waitWindow(kMsgBox, 60000).isEmpty());
        }
        const QString copy = m_dir.path() + "/copy/Tandemo";
        if (how == "copy")
            QVERIFY(QDir().mkpath(copy) &&
                    QProcess::execute("cp", {"-a", m_installDir + "/.", copy}) == 0);
        const Tree installed = tree(m_installDir);

        int code = 0;
        if (how == "asked") { // NSIS's copy in %TEMP% returns at once
            start(windowsPath(m_installDir) + "\\Uninstall.exe", {});
            QVERIFY(answerBox());
        } else if (how == "declined") {
            start(windowsPath(m_installDir) + "\\Uninstall.exe",
                  {"_?=" + windowsPath(m_installDir)});
            QVERIFY(answerBox({"Tab", "Return"}));
            QVERIFY(m_programs.last()->waitForFinished(30000));
            code = m_programs.last()->exitCode();
        } else {
            code = uninstallQuietly(how == "copy" ? copy : m_installDir);
        }
        QCOMPARE(code, exitCode);
        if (removed) {
            QTRY_COMPARE_WITH_TIMEOUT(tree(m_installDir).keys(), user.keys(), 20000);
            verifyState(QString(), m_installDir, user);
            QTRY_COMPARE_WITH_TIMEOUT(tempEntries(), temp, 10000);
            QVERIFY(ours("Tandemo.exe").isEmpty());
        } else if (how == "no list") { // the registration only
            QCOMPARE(tree(m_installDir), user);
            verifyState(QString(), m_installDir, user);
        } else {
            QCOMPARE(tree(m_installDir), installed);
            QCOMPARE(registry("DisplayVersion", kUninstallKey), kNewest);
        }
        for (const QString &file : how == "hostile" ? outside : QStringList())
            QVERIFY2(QProcess::execute("cmp", {"-s", kUnelevated, file}) == 0, qPrintable(file));
        if (how == "copy")
            QCOMPARE(tree(copy), installed);
    }

    // Started by a person, the installer says why it stops before anything changes, and ends
    // with its own exit code and a log line: run as administrator, another installer's window
    // open (the front end's guard is machine-wide), a front end that cannot start, an installed
    // version it cannot read. A folder of somebody else's files is a question: answered yes,
    // the installation goes in among them and leaves them as they were.
    void refused_data()
    {
        QTest::addColumn<QString>("how");
        QTest::addColumn<int>("exitCode");
        QTest::addColumn<QString>("logged");
        QTest::newRow("run as administrator") << "elevated" << 6 << "refused: run as administrator";
        QTest::newRow("another installer window open")
            << "window" << 4 << "another Corvalen installer window is open";
        QTest::newRow("the front end cannot start")
            << "broken" << 7 << "front end ended without a word";
        QTest::newRow("an unreadable installed version") << "unreadable" << 3 << "cannot be read";
        QTest::newRow("a folder of somebody else's files, taken")
            << "occupied" << 0 << "installing among the files already in";
    }
    void refused()
    {
        QFETCH(QString, how);
        QFETCH(int, exitCode);
        QFETCH(QString, logged);
        const QString occupied = m_dir.path() + "/occupied/Corvalen";
        const Tree user = how == "occupied" ? plantUserData(occupied) : Tree();
        if (how == "window") { // the front end in self-test mode holds the guard
            start(kWindowsBin + "/" + kFrontEnd, {}, false);
            QVERIFY(!waitWindow(kMainFolded, 30000).isEmpty());
        }
        if (how == "unreadable")
            run(kWine64, {"reg", "add", kRegKey, "/v", "Version", "/d", "3.x", "/f"});
        // The front end does not start when a library it imports is switched off.
        const QString appDefaults =
            "HKCU\\Software\\Wine\\AppDefaults\\" + kFrontEnd + "\\DllOverrides";
        if (how == "broken")
            run(kWine64, {"reg", "add", appDefaults, "/v", "ws2_32", "/d", "", "/f"});
        const auto restore = qScopeGuard([&] {
            run(kWine64, {"reg", "delete", appDefaults, "/f"});
        });
        QStringList arguments{"/LOG=" + native(logFile())};
        if (how == "occupied")
            arguments << "/D=" + windowsPath(occupied);
        QProcess *installer = start(kInstaller, arguments, how != "elevated");
        if (how == "occupied") {
            const QString main = waitWindow(kMainFolded, 60000);
            clickAt(main, kCheckBox);
            clickAt(main, kInstall);
            QVERIFY(answerBox(
                {"shift+Tab", "Return"})); // 仍要安装到这个文件夹吗？ yes, not the default
            QTRY_VERIFY_WITH_TIMEOUT(completionPageShown(main), 60000);
            clickAt(main, kClose);
        } else {
            QVERIFY(answerBox());
        }
        QVERIFY(installer->waitForFinished(30000));
        QCOMPARE(installer->exitCode(), exitCode);
        QVERIFY2(engineLog().contains(logged.toUtf8()), engineLog().constData());
        if (how == "occupied")
            verifyState(kNewest, occupied, user);
        else
            QCOMPARE(registry("DisplayVersion", kUninstallKey), QString());
    }

    // The application as a release engineer packs it (scripts/lib/payload.sh: a few hundred
    // files, one of 20 MB, every odd name a folder may hold): installed file for file, byte for
    // byte, the read-only one read-only; the bar moved while the large file was written, never
    // backwards, with no more than 250 ms between two progress messages, and ended at 100.
    void payload()
    {
        const QString folder = kWindowsBin + "/../payload-test";
        // What the front end logs goes to the debugger (OutputDebugStringW), which Wine traces
        // with its clock when told to.
        const QByteArray debug = qgetenv("WINEDEBUG");
        const QString wineDebug = "HKCU\\Software\\Wine\\Debug";
        run(kWine64, {"reg", "add", wineDebug, "/v", "RelayInclude", "/d",
                      "KERNEL32.OutputDebugStringW", "/f"});
        qputenv("WINEDEBUG", "-all,+relay,+timestamp");
        const auto restore = qScopeGuard([&] {
            qputenv("WINEDEBUG", debug);
            run(kWine64, {"reg", "delete", wineDebug, "/v", "RelayInclude", "/f"});
        });
        QProcess *installer =
            start(kInstaller.section(".exe", 0, 0) + "-payload.exe", {"/unattended"});
        const QString main = waitWindow(kMainFolded, 60000);
        // A slower machine: the installer runs a quarter of the time, so that its large file
        // takes a while to unpack, as it does on a slow disk.
        const pid_t pid = pid_t(ours("CorvalenInstaller-payload.exe").value(0));
        QElapsedTimer clock;
        clock.start();
        for (int i = 1; !(i % 100 == 0 && completionPageShown(main)) && clock.elapsed() < 120000;
             ++i) {
            ::kill(pid, SIGCONT);
            QThread::usleep(2000);
            ::kill(pid, SIGSTOP);
            QCoreApplication::processEvents(); // what the programs write is read meanwhile
            QThread::usleep(6000);
        }
        ::kill(pid, SIGCONT);
        QVERIFY(completionPageShown(main));
        clickAt(main, kClose);
        QVERIFY(installer->waitForFinished(30000));
        QCOMPARE(installer->exitCode(), 0);
        Tree installed = tree(m_installDir);
        QVERIFY(installed.remove("Uninstall.exe") && installed.remove("Uninstall.lst"));
        QCOMPARE(installed.keys(), tree(folder).keys());
        QVERIFY(installed == tree(folder));
        QVERIFY(!(QFileInfo(m_installDir + "/read-only.txt").permissions() & QFile::WriteOwner));
        // What the front end received, when: seconds, and the percentage.
        QList<QPair<double, int>> progress;
        const QRegularExpression line("^([0-9.]+):.*OutputDebugStringW.*IPCmForm::nativeEvent: "
                                      ".*msg=WM_MYPROGRESS, wp=(\\d+)");
        for (const QByteArray &text : m_programs.output.split('\n'))
            if (const auto match = line.match(QString::fromUtf8(text)); match.hasMatch())
                progress << qMakePair(match.captured(1).toDouble(), match.captured(2).toInt());
        QVERIFY(!progress.isEmpty());
        QCOMPARE(progress.last().second, 100);
        // The large file's share of the bytes, in percent.
        qint64 before = 0, total = 0, size = QFileInfo(folder + "/big engine.dll").size();
        for (auto it = installed.begin(); it != installed.end(); ++it) {
            before += it.key() < "big engine.dll" ? it.value().size() : 0;
            total += it.value().size();
        }
        const int from = int(95 * before / total), to = int(95 * (before + size) / total);
        int during = 0;
        double widest = 0;
        for (int i = 1; i < progress.size(); ++i) {
            QVERIFY2(progress[i].second >= progress[i - 1].second, "backwards");
            if (progress[i].second > from && progress[i - 1].second < to)
                ++during, widest = std::max(widest, progress[i].first - progress[i - 1].first);
        }
        qInfo("%d messages while the large file was written (%d %% to %d %%), at most %.3f s apart",
              during, from, to, widest);
        QVERIFY2(widest <= 0.25, qPrintable(QString("%1 s without a message").arg(widest)));
        QVERIFY2(during >= 3, qPrintable(QString::number(during))); // the bar moved inside it
    }

    // What a publisher ships, as the user's machine has it: every program signed (the test
    // command's throwaway certificate), the uninstaller the installer wrote included, with the
    // product's version resource; the icon where a person sees one; the front end's manifest
    // asks for nothing it sets itself.
    void artefacts_data()
    {
        QTest::addColumn<QString>("file"); // the installed one, else the one packed
        QTest::addColumn<bool>("icon");
        for (const char *file : {"Tandemo.exe", "Uninstall.exe", "CorvalenSetup.exe"})
            QTest::newRow(file) << file << true;
        for (const char *file : {"TandemoInstSvc.exe", "corvalen.dll"})
            QTest::newRow(file) << file << false;
        QTest::newRow("the installer") << kInstaller << true;
    }
    void artefacts()
    {
        QFETCH(QString, file);
        QFETCH(bool, icon);
        QCOMPARE(installQuietly(kNewest), 0);
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
        QCOMPARE(version.value(version.indexOf("ProductVersion") + 1), kNewest);
        QCOMPARE(run("wrestool", {"-l", "-t14", file}).isEmpty(), !icon);
        const QString manifest = run("wrestool", {"--raw", "-x", "-t24", file}); // the front end's
        QVERIFY(!file.endsWith("CorvalenSetup.exe") ||
                (manifest.contains("asInvoker") && !manifest.contains("dpiAware") &&
                 !manifest.contains("activeCodePage")));
        // Qt's bridge to UI Automation is linked in: screen readers read the front end.
        QVERIFY(!file.endsWith("CorvalenSetup.exe") ||
                run("strings", {"-a", file}).contains("UiaReturnRawElementProvider"));
    }

    // Windows looks for a program's imports beside it first, but for its "known DLLs": the front
    // end imports only those, the rest is loaded at first use from the system folder. Run from a
    // folder where libraries named like the rest lie (a download folder; the installer's own
    // temporary folder), it loads none of them, though Wine is told to prefer such files to its
    // own. (Not version.dll: Wine's own libraries import it, and Wine looks beside the program
    // for it; Windows takes a known DLL's imports from its own folder.)
    void plantedLibraries()
    {
        const QString imports =
            run("sh", {"-c", "x86_64-w64-mingw32-objdump -p '" + kWindowsBin +
                                 "/CorvalenSetup.exe' | sed -n 's/.*DLL Name: //p'"});
        QCOMPARE(imports.toLower().split('\n'),
                 QString("gdi32.dll kernel32.dll msvcrt.dll user32.dll advapi32.dll imm32.dll "
                         "ole32.dll oleaut32.dll shell32.dll ws2_32.dll")
                     .split(' '));
        const QString folder = m_dir.path() + "/downloads", marker = m_dir.path() + "/loaded";
        QDir().mkpath(folder);
        for (const char *program : {"CorvalenSetup.exe", "TandemoInstSvc.exe"})
            QVERIFY(QFile::copy(kWindowsBin + "/" + program, folder + "/" + program));
        const QStringList names{"dwmapi", "netapi32", "userenv", "uxtheme", "winmm", "wtsapi32"};
        for (const QString &name : names)
            QVERIFY(
                QFile::copy(kWindowsBin + "/corvalen-marker.dll", folder + "/" + name + ".dll"));
        const QByteArray overrides = qgetenv("WINEDLLOVERRIDES");
        qputenv("WINEDLLOVERRIDES", overrides + ";" + names.join(',').toUtf8() + "=n,b");
        qputenv("CORVALEN_MARKER", native(marker).toUtf8());
        const auto restore = qScopeGuard([&] {
            qputenv("WINEDLLOVERRIDES", overrides);
            qunsetenv("CORVALEN_MARKER");
        });
        start(folder + "/CorvalenSetup.exe", {}, false);
        const QString main = waitWindow(kMainFolded, 30000);
        clickAt(main, kClose); // the close question: uxtheme, dwmapi, winmm at work
        QVERIFY(!waitWindow(kMsgBox, 10000).isEmpty());
        QFile loaded(marker);
        QVERIFY2(!loaded.open(QFile::ReadOnly),
                 qPrintable("loaded: " + QString::fromUtf16(reinterpret_cast<const char16_t *>(
                                                                loaded.readAll().constData()),
                                                            int(loaded.size() / 2))));
    }

private:
    QProcess *start(const QString &program, const QStringList &args, bool asUser = true)
    {
        return m_programs.start(program, args, asUser ? kUnelevated : QString());
    }
    // Return (or other keys) in the first visible message of the installer's or the
    // uninstaller's own; false when none came.
    bool answerBox(const QStringList &keys = {"Return"})
    {
        const QString box = waitWindow({}, 30000, "(安装|卸载)程序$");
        if (box.isEmpty())
            return false;
        run("xdotool", QStringList{"windowfocus", "--sync", box, "key"} + keys);
        return true;
    }
    QString payloadOf(const QString &version) const
    {
        return kWindowsBin + "/../payload-" + version;
    }
    // The installer's log, where the story names it.
    QString logFile() const { return m_dir.path() + "/installer.log"; }
    QByteArray engineLog() const
    {
        QFile file(logFile());
        return file.open(QFile::ReadOnly) ? file.readAll() : QByteArray();
    }
    // A path of the prefix as Windows programs name it.
    QString windowsPath(const QString &path) const
    {
        const QString drive = qEnvironmentVariable("WINEPREFIX") + "/drive_c/";
        return path.startsWith(drive) ? "C:\\" + path.mid(drive.size()).replace('/', '\\')
                                      : native(path);
    }

    // No Corvalen in the prefix: neither its files nor its registry keys nor its shortcuts.
    void resetInstallation()
    {
        run("chattr", {"-i", m_installDir + "/resources"});
        QDir(m_installDir).removeRecursively();
        QDir(m_installDir + ".old").removeRecursively();
        for (const QString &key : {kRegKey, kUninstallKey})
            run(kWine64, {"reg", "delete", key, "/f"});
        for (const char *shortcut : kShortcutFolders)
            QFile::remove(userFolder(shortcut) + "/Corvalen.lnk");
    }
    // A folder of the Wine user's, such as "Temp" or "Desktop".
    QString userFolder(const QString &name) const { return m_profile + "/" + name; }
    // What the user's %TEMP% holds, but the logs of the installer's runs, which stay.
    QStringList tempEntries() const
    {
        return QDir(userFolder("Temp"))
            .entryList(QDir::AllEntries | QDir::Hidden)
            .filter(QRegularExpression("^(?!Corvalen-(setup|uninstall)-.*\\.log$)"));
    }
    QString registry(const QString &value, const QString &key = kRegKey)
    {
        const QString out = run(kWine64, {"reg", "query", key, "/v", value});
        return QRegularExpression(value + "\\s+REG_SZ\\s+(.+)").match(out).captured(1).trimmed();
    }
    // Runs that version's installer with /S (and `more`), logging to logFile(): its exit code.
    int installQuietly(const QString &version, const QString &more = QString(), bool asUser = true)
    {
        QProcess *p = start(installerOf(version),
                            QStringList{"/S", "/LOG=" + native(logFile())} +
                                (more.isEmpty() ? QStringList() : QStringList{more}),
                            asUser);
        return p->waitForFinished(60000) ? p->exitCode() : -1;
    }
    // The uninstaller in `folder` as Apps & features starts it quietly: its exit code.
    int uninstallQuietly(const QString &folder = QString())
    {
        const QString in = windowsPath(folder.isEmpty() ? m_installDir : folder);
        QProcess *p =
            start(in + "\\Uninstall.exe", {"/S", "/LOG=" + native(logFile()), "_?=" + in});
        return p->waitForFinished(60000) ? p->exitCode() : -1;
    }

    // `version` whole in `folder` and registered as such, with the user's files beside it;
    // with no version, nothing of ours anywhere: only the user's files.
    void verifyState(const QString &version, const QString &folder, const Tree &user)
    {
        QCOMPARE(registry("Version"), version);
        QCOMPARE(registry("DisplayVersion", kUninstallKey), version);
        Tree expected = user, actual = tree(folder);
        if (!version.isEmpty()) {
            QCOMPARE(registry("InstallLocation", kUninstallKey), windowsPath(folder));
            const Tree payload = tree(payloadOf(version));
            for (auto it = payload.begin(); it != payload.end(); ++it)
                expected.insert(it.key(), it.value());
            QVERIFY(actual.remove("Uninstall.exe") && actual.remove("Uninstall.lst"));
        }
        QCOMPARE(actual.keys(), expected.keys()); // nothing staged or set aside left
        QVERIFY(actual == expected);
        for (const char *shortcut : kShortcutFolders)
            QCOMPARE(QFileInfo::exists(userFolder(shortcut) + "/Corvalen.lnk"), !version.isEmpty());
    }

    QTemporaryDir m_dir;
    Programs m_programs;
    QString m_user, m_profile, m_installDir;
};

QTEST_MAIN(tst_Installer)
#include "tst_installer.moc"
