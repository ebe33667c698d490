// What the e2e stories share: the X display that scripts/test.sh provides, read and clicked
// through xdotool; the programs under test, natively or under Wine (CORVALEN_WINDOWS_BIN; the
// prefix comes from scripts/test-windows.sh); the screen, read back from the X server through
// the compositor of the private display and compared with the reviewed pictures.
#pragma once

#include "geometry.h"
#include "pixels.h"

#include <QtTest>

#include <QPainter>
#include <QScreen>

#include <csignal>

namespace e2e {

inline const QString kLinuxBin = CORVALEN_BIN_DIR;
inline const QString kWindowsBin = qEnvironmentVariable("CORVALEN_WINDOWS_BIN");
inline const bool kWine = !kWindowsBin.isEmpty();
inline const QString kWine64 = "/usr/lib/wine/wine64";
inline const QString kBin = kWine ? kWindowsBin : kLinuxBin, kExe = kWine ? ".exe" : "";
inline const QString kFrontEnd = "CorvalenSetup" + kExe;
// Every process this run starts carries it, and so do their children: whatever else runs on
// the machine is never touched.
inline const QByteArray kRun = QByteArray::number(QCoreApplication::applicationPid());

inline const QSize kMainFolded(GEOMETRY_MAIN_FOLDED), kMainUnfolded(GEOMETRY_MAIN_UNFOLDED),
    kMsgBox(GEOMETRY_MSG_BOX);
// Inside the windows, shadow margin included.
inline const QPoint kCheckBox(GEOMETRY_CHECK_BOX), kInstall(GEOMETRY_INSTALL),
    kStartup(GEOMETRY_START_USING), kMoreOptions(GEOMETRY_MORE_OPTIONS), kBrowse(GEOMETRY_BROWSE),
    kClose(GEOMETRY_CLOSE), kMsgOK(GEOMETRY_MSG_OK), kMsgCancel(GEOMETRY_MSG_CANCEL);
// What scripts/lib/xvfb.sh's desktop shows under the windows' translucent margin.
inline const QColor kDesktop(0xF2, 0xF3, 0xF5);
// Natively the picture tier's references serve, laid on the desktop; text under Wine comes
// from the Windows font engine, so that rendition has reviewed pictures of its own.
inline const QString kScreenReferences =
    QString(CORVALEN_SCREEN_REFERENCE_DIR) + (kWine ? "/wine/" : "/native/");
inline const QStringList kAway{"mousemove", "1270", "1010"}; // a corner no window covers

inline QString run(const QString &program, const QStringList &args)
{
    QProcess p;
    p.start(program, args);
    p.waitForFinished(20000);
    return QString::fromUtf8(p.readAllStandardOutput()).trimmed();
}

inline QRect windowRect(const QString &id)
{
    QMap<QString, int> v; // X=, Y=, WIDTH=, HEIGHT= lines
    for (const QString &line : run("xdotool", {"getwindowgeometry", "--shell", id}).split('\n'))
        v[line.section('=', 0, 0)] = line.section('=', 1).toInt();
    return QRect(v["X"], v["Y"], v["WIDTH"], v["HEIGHT"]);
}

// The visible top-level window titled `title` (a pattern) of that size, "" when none comes in
// time.
inline QString waitWindow(const QSize &size, int ms = 30000, const QString &title = "^Corvalen$")
{
    QString found;
    const auto seen = [&] {
        for (const QString &id :
             run("xdotool", {"search", "--onlyvisible", "--name", title}).split('\n'))
            if (!id.isEmpty() && (size.isEmpty() || windowRect(id).size() == size))
                return !(found = id).isEmpty();
        return false;
    };
    return QTest::qWaitFor(seen, ms) ? found : QString();
}

inline void clickAt(const QString &window, QPoint p)
{
    p += windowRect(window).topLeft();
    // The hover first, as a person's pointer would, and away after the click.
    run("xdotool", QStringList{"mousemove", QString::number(p.x()), QString::number(p.y()), "sleep",
                               "0.06", "click", "1"} +
                       kAway);
}

inline QImage grab(const QString &window)
{
    const QRect r = windowRect(window);
    return QGuiApplication::primaryScreen()
        ->grabWindow(0, r.x(), r.y(), r.width(), r.height())
        .toImage();
}

// The reviewed picture of `state` as the display shows it over `under`, by default the desktop.
inline QImage reference(const QString &state, const QImage &under = {})
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
inline QString screenDiffers(const QString &window, const QString &state,
                             const QRegion &changing = {}, const QImage &under = {})
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
        const QString differs = e2e::screenDiffers(__VA_ARGS__);                                   \
        QVERIFY2(differs.isEmpty(), qPrintable(differs));                                          \
    } while (false)

inline bool completionPageShown(const QString &main)
{
    return grab(main).pixelColor(kStartup - QPoint(40, 10)).name() == "#5998ff";
}

// Linux pids of this run's live processes running the executable `name`.
inline QList<qint64> ours(const QString &name)
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
inline QString native(const QString &path)
{
    return kWine && path.startsWith('/') ? "Z:" + QString(path).replace('/', '\\') : path;
}

// The processes a story starts, with this run's mark, their output gathered; all of them and
// their children killed at its end.
class Programs
{
public:
    ~Programs() { killAll({}); }
    // Under Wine a Windows program, through `wrapper` when given (a Windows program too).
    QProcess *start(const QString &program, const QStringList &args,
                    const QString &wrapper = QString())
    {
        auto *p = new QProcess;
        m_started << p;
        QProcessEnvironment env = QProcessEnvironment::systemEnvironment();
        env.insert("CORVALEN_E2E_RUN", kRun);
        p->setProcessEnvironment(env);
        p->setProcessChannelMode(QProcess::MergedChannels);
        QObject::connect(p, &QProcess::readyRead, [this, p] { output += p->readAll(); });
        if (kWine)
            p->start(kWine64, (wrapper.isEmpty() ? QStringList() : QStringList(native(wrapper))) +
                                  QStringList(native(program)) + args);
        else
            p->start(program, args);
        p->waitForStarted();
        return p;
    }
    QProcess *last() const { return m_started.last(); }
    // A member of the suite running: a copy of the application's stand-in under its name.
    bool startApplication(const QString &name, const QString &folder)
    {
        const QString copy = folder + "/" + name + ".exe";
        QFile::remove(copy);
        QFile::copy(kBin + "/Tandemo.exe", copy);
        QFile::setPermissions(copy, QFile::ExeOwner | QFile::ReadOwner);
        start(copy, {"60"});
        return QTest::qWaitFor([&] { return ours(name + ".exe").size() == 1; }, 10000);
    }
    // Kills what runs under these names, and what was started.
    void killAll(const QStringList &names)
    {
        for (const QString &name : names)
            for (qint64 pid : ours(name))
                ::kill(pid_t(pid), SIGKILL);
        for (QProcess *p : std::exchange(m_started, {}))
            p->close(), delete p; // killed and waited for, without a warning
        output.clear();
    }
    QByteArray output;

private:
    QList<QProcess *> m_started;
};

} // namespace e2e
