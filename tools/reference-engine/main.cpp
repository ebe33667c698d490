// corvalen-engine: the installer engine's side of the conversation with the front end, on
// Linux/X11 and on Windows. Read it to learn what an engine must do to drive CorvalenSetup:
//
//  1. Own a window (hidden; the front end keeps it hidden anyway) and pass its id in decimal
//     as the first argument, with the engine's own process id as the sixth.
//  2. Propose the install folder before anything is posted: written as UTF-16LE into the IPC
//     file (Unicode engines, argument 7 + argument 8 = 1), or as the engine window's title.
//  3. Wait for WM_IPC_HWND (1224): its wParam is the front end's message window. Nothing can be
//     posted before it arrives.
//  4. Post WM_PATH_INFO (1129, wParam 1 = resolve the proposal, lParam = writable) and
//     WM_DISK_SPACE (1128, wParam = required MB, lParam = free MB, -1 = folder missing).
//  5. On WM_INSTALL_PATH (1125) with wParam 0 the user browsed: read the front end window's
//     title, check that folder, answer with WM_PATH_INFO (wParam 0) and WM_DISK_SPACE.
//  6. On WM_INSTALL_PATH with wParam 1 install into the folder the title names, posting
//     WM_MYPROGRESS (1124) percentages that end with exactly 100.
//  7. WM_COMPLETE_INSTALL (1126) from the front end: the user wants the application started.
//     WM_CANCEL_INSTALL (1127): the user gave up. Either way the front end ends a second later.
//     The engine may end the front end at once by posting WM_COMPLETE_INSTALL itself.
//
// Paths: the front end speaks Windows paths. Off Windows this engine proposes POSIX paths
// written with backslashes ("/tmp/x" becomes "\tmp\x") and maps every path it reads back the
// same way; a drive letter ("C:\Tandemo") maps to <drive root>/C/Tandemo (--drive-root).
#include "ipc/ipcmessages.h"
#include "os/os.h"

#include <QApplication>
#include <QCommandLineParser>
#include <QDateTime>
#include <QDebug>
#include <QDir>
#include <QDirIterator>
#include <QElapsedTimer>
#include <QFile>
#include <QFileInfo>
#include <QJsonDocument>
#include <QJsonObject>
#include <QProcess>
#include <QStorageInfo>
#include <QTemporaryDir>
#include <QTimer>
#include <QWidget>

#include <cstdio>
#include <memory>

namespace {

constexpr qint64 kMiB = qint64(1024) * 1024;
#ifdef Q_OS_WIN
constexpr char kExeSuffix[] = ".exe";
#else
constexpr char kExeSuffix[] = "";
#endif

struct Options
{
    QString frontEnd;
    QString versionNew = "3.0.0.5";
    QString versionOld = "0.0.0.0";
    bool unicode = true;
    bool withoutAgreement = false;
    bool disableChoosePath = false;
    QString payload;
    QString target;
    qint64 requiredMB = -1;
    bool unattended = false;
    QString logFile;
    QString commandLine; // the front end's arguments as typed; empty: the eight, quoted
    QString driveRoot = "/tmp/corvalen-drives";
    int chunkKB = 256;
};

// "C:\x" -> <driveRoot>/C/x; "\tmp\x" -> /tmp/x. On Windows only the separators change.
QString toEnginePath(const QString &windowsPath, const QString &driveRoot)
{
    QString path = windowsPath;
#ifndef Q_OS_WIN
    if (path.size() >= 2 && path[1] == ':' && path[0].isLetter())
        path = driveRoot + "/" + path[0].toUpper() + "/" + path.mid(2);
#else
    Q_UNUSED(driveRoot)
#endif
    path.replace('\\', '/');
    return QDir::cleanPath(path);
}

QString toWindowsPath(const QString &enginePath)
{
    return QDir::cleanPath(enginePath).replace('/', '\\');
}

QString nearestExistingAncestor(const QString &path)
{
    QString current = QFileInfo(path).absoluteFilePath();
    while (!QFileInfo::exists(current)) {
        const QString parent = QFileInfo(current).absolutePath();
        if (parent == current)
            break;
        current = parent;
    }
    return current;
}

qint64 freeMB(const QString &path)
{
    const QStorageInfo storage(nearestExistingAncestor(path));
    return storage.isValid() ? storage.bytesAvailable() / kMiB : 0;
}

bool writable(const QString &path)
{
    return QFileInfo(nearestExistingAncestor(path)).isWritable();
}

// A small payload standing in for the application's files.
QString makeDefaultPayload(const QString &dir)
{
    QDir(dir).mkpath("payload/resources/images");
    auto write = [&](const QString &name, int kb, char seed) {
        QFile f(dir + "/payload/" + name);
        f.open(QFile::WriteOnly);
        QByteArray block(1024, 0);
        for (int k = 0; k < kb; ++k) {
            for (int i = 0; i < block.size(); ++i)
                block[i] = static_cast<char>(seed + (i * 31 + k * 7) % 251);
            f.write(block);
        }
    };
    write("Tandemo.exe", 1536, 1);
    write("TandemoSvc.exe", 512, 2);
    write("resources/strings.dat", 96, 3);
    write("resources/images/splash.bin", 384, 4);
    QFile readme(dir + "/payload/README.txt");
    readme.open(QFile::WriteOnly);
    readme.write("Corvalen reference payload\n");
    return dir + "/payload";
}

class Engine final : public QWidget
{
public:
    explicit Engine(const Options &options) : m_options(options)
    {
        setWindowTitle("corvalen-engine");
        winId(); // the native window the front end talks to
        if (m_options.logFile.size()) {
            m_log.setFileName(m_options.logFile);
            m_log.open(QFile::WriteOnly | QFile::Truncate | QFile::Text);
        }
        m_clock.start();
        connect(&m_copyTimer, &QTimer::timeout, this, [this] { copyStep(); });
    }

    int start()
    {
        if (m_options.payload.isEmpty())
            m_options.payload = makeDefaultPayload(m_scratch.path());
        if (m_options.target.isEmpty())
            m_options.target = m_scratch.path() + "/Program Files/Tandemo";
        collectPayload();
        if (m_options.requiredMB < 0)
            m_options.requiredMB = qMax<qint64>(1, (m_totalBytes + kMiB - 1) / kMiB);

        // Step 2: the proposal, before the front end can ask for it.
        const QString proposal = toWindowsPath(m_options.target);
        QString ipcFile;
        if (m_options.unicode) {
            ipcFile = m_scratch.path() + "/ipc.dat";
            QFile f(ipcFile);
            f.open(QFile::WriteOnly);
            for (QChar c : proposal) {
                const ushort u = c.unicode();
                f.putChar(static_cast<char>(u & 0xff));
                f.putChar(static_cast<char>(u >> 8));
            }
        } else {
            setWindowTitle(proposal);
        }

        // Step 1: the eight arguments.
        const QStringList arguments{QString::number(os::windowHandleArgument(winId())),
                                    m_options.disableChoosePath ? "1" : "0",
                                    m_options.withoutAgreement ? "1" : "0",
                                    m_options.versionNew,
                                    m_options.versionOld,
                                    QString::number(QCoreApplication::applicationPid()),
                                    ipcFile,
                                    m_options.unicode ? "1" : "0"};
        m_frontEnd.setProcessChannelMode(QProcess::ForwardedChannels);
        connect(&m_frontEnd, QOverload<int, QProcess::ExitStatus>::of(&QProcess::finished), this,
                [this](int code, QProcess::ExitStatus status) { frontEndEnded(code, status); });
        if (m_options.commandLine.isEmpty()) {
            m_frontEnd.start(m_options.frontEnd, arguments);
        } else {
            QString line = m_options.commandLine;
            line.replace("{hwnd}", arguments[0]).replace("{pid}", arguments[5]);
            line.replace("{ipc}", arguments[6]);
#ifdef Q_OS_WIN
            // Verbatim: how the front end splits it is what is being tried.
            m_frontEnd.setProgram(m_options.frontEnd);
            m_frontEnd.setNativeArguments(line);
            m_frontEnd.start();
#else
            m_frontEnd.start(m_options.frontEnd, QProcess::splitCommand(line));
#endif
        }
        if (!m_frontEnd.waitForStarted(10000)) {
            logEvent("error", {{"what", "front end did not start: " + m_frontEnd.errorString()}});
            return 2;
        }
        logEvent("started", {{"frontEndPid", m_frontEnd.processId()},
                             {"window", static_cast<qint64>(winId())},
                             {"target", m_options.target},
                             {"requiredMB", m_options.requiredMB},
                             {"mode", m_options.unicode ? "unicode" : "ansi"}});
        return -1;
    }

protected:
    bool nativeEvent(const QByteArray &, void *message, long *) override
    {
        const auto decoded =
            os::platform().decodeNativeMessage(message, os::kNativeMessageRecordSize);
        if (!decoded)
            return false;
        // On Windows every message of the window comes through here; the rest are Qt's.
        if (!messageName(decoded->message))
            return decoded->privateCarrier;
        logMessage("in", *decoded, true);
        switch (decoded->message) {
        case WM_IPC_HWND:
            m_frontWindow = static_cast<os::WindowHandle>(decoded->wParam);
            reportFolder(m_options.target, 1);
            break;
        case WM_INSTALL_PATH:
            if (decoded->wParam == 0)
                reportFolder(toEnginePath(frontEndTitle(), m_options.driveRoot), 0);
            else
                startCopy(toEnginePath(frontEndTitle(), m_options.driveRoot));
            break;
        case WM_COMPLETE_INSTALL:
            m_startRequested = true;
            break;
        case WM_CANCEL_INSTALL:
            m_cancelled = true;
            abortCopy();
            break;
        default:
            break;
        }
        return true;
    }

private:
    QString frontEndTitle() const
    {
        return QString::fromLocal8Bit(os::platform().windowText(m_frontWindow).c_str());
    }

    void post(std::uint32_t msg, std::uint64_t wParam, std::int64_t lParam)
    {
        const bool ok = os::platform().postMessage(m_frontWindow, msg, wParam, lParam);
        logMessage("out", {m_frontWindow, msg, wParam, lParam}, ok);
    }

    // Steps 4 and 5: writable flag and disk figures of a folder. The user chooses the parent;
    // the front end appends "\Tandemo", so a missing parent means a missing choice.
    void reportFolder(const QString &folder, std::uint64_t resolve)
    {
        const bool missing = !QFileInfo(QFileInfo(folder).absolutePath()).isDir();
        post(WM_PATH_INFO, resolve, writable(folder) ? 1 : 0);
        post(WM_DISK_SPACE, static_cast<std::uint64_t>(m_options.requiredMB),
             missing ? -1 : qMin<qint64>(freeMB(folder), 0x7fffffff));
    }

    void collectPayload()
    {
        QDirIterator it(m_options.payload, QDir::Files | QDir::Hidden,
                        QDirIterator::Subdirectories);
        while (it.hasNext()) {
            const QString path = it.next();
            m_files << QDir(m_options.payload).relativeFilePath(path);
            m_totalBytes += QFileInfo(path).size();
        }
        m_files.sort();
    }

    // Step 6: the copy goes to a staging folder beside the target and is moved into place
    // only when complete, so a cancelled or interrupted install leaves nothing half-copied.
    void startCopy(const QString &target)
    {
        if (m_copyTimer.isActive() || m_installed)
            return;
        m_installTarget = target;
        m_staging = target + ".corvalen-partial";
        QDir(m_staging).removeRecursively();
        if (!QDir().mkpath(m_staging)) {
            logEvent("error", {{"what", "cannot create " + m_staging}});
            return;
        }
        logEvent("copy-start", {{"target", target}, {"bytes", m_totalBytes}});
        m_fileIndex = 0;
        m_copiedBytes = 0;
        m_lastPercent = -1;
        m_copyTimer.start(10);
    }

    void copyStep()
    {
        qint64 budget = qint64(m_options.chunkKB) * 1024;
        while (budget > 0 && m_fileIndex < m_files.size()) {
            const QString name = m_files[m_fileIndex];
            if (!m_in) {
                m_in = std::make_unique<QFile>(m_options.payload + "/" + name);
                m_out = std::make_unique<QFile>(m_staging + "/" + name);
                QDir().mkpath(QFileInfo(*m_out).absolutePath());
                if (!m_in->open(QFile::ReadOnly) || !m_out->open(QFile::WriteOnly)) {
                    logEvent("error", {{"what", "cannot copy " + name}});
                    abortCopy();
                    return;
                }
            }
            const QByteArray data = m_in->read(qMin<qint64>(budget, qint64(64) * 1024));
            m_out->write(data);
            budget -= data.size();
            m_copiedBytes += data.size();
            if (m_in->atEnd()) {
                m_in.reset();
                m_out.reset();
                ++m_fileIndex;
            }
        }
        const bool done = m_fileIndex >= m_files.size();
        // 100 is posted only once everything is in place.
        int percent = m_totalBytes ? int(m_copiedBytes * 100 / m_totalBytes) : 100;
        if (!done)
            percent = qMin(percent, 99);
        else if (!finishCopy())
            return;
        if (percent > m_lastPercent) {
            m_lastPercent = percent;
            post(WM_MYPROGRESS, static_cast<std::uint64_t>(percent), 0);
        }
        if (done && m_options.unattended) {
            // The front end shows its completion page a second after drawing 100.
            QTimer::singleShot(2500, this, [this] { post(WM_COMPLETE_INSTALL, 0, 0); });
        }
    }

    bool finishCopy()
    {
        m_copyTimer.stop();
        QDir().mkpath(m_installTarget);
        for (const QString &name : m_files) {
            const QString to = m_installTarget + "/" + name;
            QDir().mkpath(QFileInfo(to).absolutePath());
            QFile::remove(to);
            if (!QFile::rename(m_staging + "/" + name, to)) {
                logEvent("error", {{"what", "cannot move " + name + " into place"}});
                abortCopy();
                return false;
            }
        }
        QDir(m_staging).removeRecursively();
        m_installed = true;
        logEvent("copied", {{"target", m_installTarget}, {"files", m_files.size()}});
        return true;
    }

    void abortCopy()
    {
        m_copyTimer.stop();
        m_in.reset();
        m_out.reset();
        if (!m_staging.isEmpty() && !m_installed) {
            QDir(m_staging).removeRecursively();
            logEvent("copy-abandoned", {{"target", m_installTarget}});
        }
    }

    // The conversation ends with the front end: done (0), cancelled (1), or cut short (2).
    void frontEndEnded(int code, QProcess::ExitStatus status)
    {
        abortCopy();
        const int result = m_installed ? 0 : m_cancelled ? 1 : 2;
        logEvent("exit", {{"frontEndCode", code},
                          {"frontEndCrashed", status == QProcess::CrashExit},
                          {"installed", m_installed},
                          {"startRequested", m_startRequested},
                          {"code", result}});
        QCoreApplication::exit(result);
    }

    void logMessage(const char *direction, const os::NativeMessage &m, bool ok)
    {
        logEvent("message", {{"dir", direction},
                             {"msg", static_cast<qint64>(m.message)},
                             {"name", messageName(m.message)},
                             {"wp", QString::number(m.wParam)},
                             {"lp", QString::number(m.lParam)},
                             {"ok", ok}});
    }

    void logEvent(const char *event, const QJsonObject &fields)
    {
        QJsonObject o = fields;
        o["event"] = event;
        o["t"] = m_clock.elapsed();
        const QByteArray line = QJsonDocument(o).toJson(QJsonDocument::Compact);
        if (m_log.isOpen()) {
            m_log.write(line + "\n");
            m_log.flush();
        }
    }

    Options m_options;
    QTemporaryDir m_scratch;
    QFile m_log;
    QElapsedTimer m_clock;
    QProcess m_frontEnd;
    os::WindowHandle m_frontWindow = 0;
    QStringList m_files;
    qint64 m_totalBytes = 0;
    QTimer m_copyTimer;
    QString m_installTarget;
    QString m_staging;
    int m_fileIndex = 0;
    qint64 m_copiedBytes = 0;
    int m_lastPercent = -1;
    std::unique_ptr<QFile> m_in;
    std::unique_ptr<QFile> m_out;
    bool m_installed = false;
    bool m_cancelled = false;
    bool m_startRequested = false;
};

} // namespace

int main(int argc, char *argv[])
{
#ifndef Q_OS_WIN
    if (qEnvironmentVariableIsEmpty("QT_QPA_PLATFORM"))
        qputenv("QT_QPA_PLATFORM", "xcb"); // messages travel through X
    if (qEnvironmentVariableIsEmpty("QT_XCB_GL_INTEGRATION"))
        qputenv("QT_XCB_GL_INTEGRATION", "none");
#endif
    QApplication app(argc, argv);

    QCommandLineParser parser;
    parser.setApplicationDescription(
        "Plays the installer engine's side of the conversation with CorvalenSetup: proposes a "
        "folder, answers the front end's messages, copies the payload and reports progress.\n"
        "Exit code: 0 installed, 1 cancelled by the user, 2 front end ended early or failed.");
    parser.addHelpOption();
    parser.addOptions({
        {"frontend", "Front end executable (default: CorvalenSetup next to this program).", "path"},
        {"new-version", "Version being installed (default 3.0.0.5).", "version"},
        {"old-version", "Version already installed (default 0.0.0.0).", "version"},
        {"unicode", "Propose the folder through the IPC file, UTF-16LE (default)."},
        {"ansi", "Propose the folder through this engine's window title."},
        {"without-agreement", "Ask the front end to install without the agreement page."},
        {"disable-choose-path", "Ask the front end to disable the browse button."},
        {"payload", "Folder to install (default: a small generated one).", "dir"},
        {"target", "Proposed install folder (default: a temporary one).", "dir"},
        {"required-mb", "Space the installation needs, in MB (default: the payload's size).", "mb"},
        {"drive-root", "Where drive letters map to (default /tmp/corvalen-drives).", "dir"},
        {"chunk-kb", "Bytes copied per 10 ms step, in KB (default 256).", "kb"},
        {"unattended", "Post WM_COMPLETE_INSTALL once the completion page has shown a while."},
        {"log", "Write every message in and out, one JSON object per line.", "file"},
        {"command-line",
         "The front end's arguments as typed, {hwnd}, {pid} and {ipc} filled in; on Windows "
         "passed on verbatim, for the front end to split (default: the eight, each quoted).",
         "text"},
    });
    parser.process(app);

    Options options;
    options.frontEnd = parser.isSet("frontend") ? parser.value("frontend")
                                                : QCoreApplication::applicationDirPath() +
                                                      "/CorvalenSetup" + QString(kExeSuffix);
    if (parser.isSet("new-version"))
        options.versionNew = parser.value("new-version");
    if (parser.isSet("old-version"))
        options.versionOld = parser.value("old-version");
    options.unicode = !parser.isSet("ansi");
    options.withoutAgreement = parser.isSet("without-agreement");
    options.disableChoosePath = parser.isSet("disable-choose-path");
    options.payload = parser.value("payload");
    if (parser.isSet("target"))
        options.target = QFileInfo(parser.value("target")).absoluteFilePath();
    if (parser.isSet("required-mb"))
        options.requiredMB = parser.value("required-mb").toLongLong();
    if (parser.isSet("drive-root"))
        options.driveRoot = parser.value("drive-root");
    if (parser.isSet("chunk-kb"))
        options.chunkKB = qMax(1, parser.value("chunk-kb").toInt());
    options.unattended = parser.isSet("unattended");
    options.logFile = parser.value("log");
    options.commandLine = parser.value("command-line");
    if (!options.payload.isEmpty() && !QFileInfo(options.payload).isDir()) {
        std::fprintf(stderr, "corvalen-engine: payload %s is not a folder\n",
                     qPrintable(options.payload));
        return 2;
    }

    Engine engine(options);
    const int early = engine.start();
    if (early >= 0)
        return early;
    return app.exec();
}
