// Collects the Qt debug stream for the lifetime of the object.
#pragma once

#include <QStringList>
#include <QtGlobal>

class LogCapture
{
public:
    LogCapture() : m_previous(qInstallMessageHandler(&LogCapture::handler)) { current() = this; }
    ~LogCapture()
    {
        qInstallMessageHandler(m_previous);
        current() = nullptr;
    }
    Q_DISABLE_COPY_MOVE(LogCapture)

    QStringList lines;
    bool contains(const QString &line) const { return lines.contains(line); }

private:
    static LogCapture *&current()
    {
        static LogCapture *capture = nullptr;
        return capture;
    }
    static void handler(QtMsgType, const QMessageLogContext &, const QString &message)
    {
        if (current())
            current()->lines << message;
    }
    QtMessageHandler m_previous;
};
