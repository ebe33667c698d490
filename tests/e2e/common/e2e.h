// What the end-to-end tiers share: xdotool on the real windows, the engine's JSON log, the
// installed tree. The windows are X windows in both tiers (Wine's are too).
#pragma once

#include <QtTest>

#include <QGuiApplication>
#include <QJsonDocument>
#include <QJsonObject>
#include <QScreen>

namespace e2e {

inline QString xdotool(const QStringList &args)
{
    QProcess p;
    p.start("xdotool", args);
    p.waitForFinished(10000);
    return QString::fromUtf8(p.readAllStandardOutput()).trimmed();
}

inline QRect windowRect(const QString &id)
{
    const QString geometry = xdotool({"getwindowgeometry", id});
    const auto m = QRegularExpression("Position: (-?\\d+),(-?\\d+).*Geometry: (\\d+)x(\\d+)",
                                      QRegularExpression::DotMatchesEverythingOption)
                       .match(geometry);
    return m.hasMatch() ? QRect(m.captured(1).toInt(), m.captured(2).toInt(), m.captured(3).toInt(),
                                m.captured(4).toInt())
                        : QRect();
}

// The one visible top-level window titled exactly "Corvalen" of the given size, or "".
inline QString visibleWindow(const QSize &size)
{
    const QStringList ids = xdotool({"search", "--onlyvisible", "--name", "^Corvalen$"})
                                .split('\n', Qt::SkipEmptyParts);
    for (const QString &id : ids)
        if (windowRect(id).size() == size)
            return id;
    return QString();
}

inline void clickAt(const QString &window, QPoint p)
{
    const QPoint origin = windowRect(window).topLeft();
    xdotool(
        {"mousemove", QString::number(origin.x() + p.x()), QString::number(origin.y() + p.y())});
    QTest::qWait(60); // let the hover reach the widget first, as a person's pointer would
    xdotool({"click", "1"});
}

inline QImage grab(const QString &window)
{
    const QRect r = windowRect(window);
    return QGuiApplication::primaryScreen()
        ->grabWindow(0, r.x(), r.y(), r.width(), r.height())
        .toImage();
}

const QSize kLoading(416, 136);
const QSize kMainFolded(476, 346);
const QSize kMainUnfolded(476, 426);
const QSize kMsgBox(416, 226);
// Positions inside the windows, shadow margin included.
const QPoint kCheckBox(8 + 96 + 8, 8 + 238 + 13);
const QPoint kInstall(8 + 230, 8 + 207);
const QPoint kStartup(8 + 230, 8 + 261);
const QPoint kMoreOptions(8 + 221, 8 + 300);
const QPoint kBrowse(8 + 400, 8 + 347);
const QPoint kMsgOK(8 + 285, 8 + 177);
const QPoint kMsgCancel(8 + 135, 8 + 177);
const QPoint kMsgSingle(8 + 200, 8 + 177);

inline QList<QJsonObject> readLog(const QString &path)
{
    QList<QJsonObject> out;
    QFile f(path);
    if (!f.open(QFile::ReadOnly))
        return out;
    for (const QByteArray &line : f.readAll().split('\n'))
        if (!line.isEmpty())
            out << QJsonDocument::fromJson(line).object();
    return out;
}

// "msg/wParam" of every message the engine logged in one direction.
inline QStringList messages(const QList<QJsonObject> &log, const QString &dir)
{
    QStringList out;
    for (const QJsonObject &o : log)
        if (o["event"] == "message" && o["dir"] == dir)
            out << QString("%1/%2").arg(o["msg"].toInt()).arg(o["wp"].toString());
    return out;
}

inline qint64 loggedNumber(const QList<QJsonObject> &log, const char *event, const char *field)
{
    for (const QJsonObject &o : log)
        if (o["event"] == event)
            return o[field].toVariant().toLongLong();
    return 0;
}

// A small payload standing in for the application: a few hundred KB in two folders, one file
// named `secondName`. Returns its folder, or "" when it could not be written.
inline QString makePayload(const QString &dir, const QString &secondName)
{
    const QString payload = dir + "/payload";
    QDir().mkpath(payload + "/bin");
    QFile a(payload + "/Tandemo.exe");
    QFile b(payload + "/bin/" + secondName);
    if (!a.open(QFile::WriteOnly) || !b.open(QFile::WriteOnly))
        return QString();
    for (int i = 0; i < 40000; ++i)
        a.write(QByteArray::number(i * 7919) + "\n");
    b.write(QByteArray(300000, 'x'));
    return payload;
}

// Every file of `a` is in `b` with the same bytes, and `a` is not empty.
inline bool sameTree(const QString &a, const QString &b)
{
    QDirIterator it(a, QDir::Files, QDirIterator::Subdirectories);
    int n = 0;
    while (it.hasNext()) {
        const QString path = it.next();
        QFile x(path), y(b + "/" + QDir(a).relativeFilePath(path));
        if (!x.open(QFile::ReadOnly) || !y.open(QFile::ReadOnly) || x.readAll() != y.readAll())
            return false;
        ++n;
    }
    return n > 0;
}

// Progress the engine posted only rises and ends with exactly 100.
inline bool progressRisesTo100(const QList<QJsonObject> &log)
{
    int last = -1;
    for (const QString &m : messages(log, "out"))
        if (m.startsWith("1124/")) {
            const int percent = m.section('/', 1).toInt();
            if (percent <= last)
                return false;
            last = percent;
        }
    return last == 100;
}

} // namespace e2e
