// Collects the Qt debug stream for the lifetime of the object.
#pragma once

#include <QStringList>
#include <QtGlobal>

class LogCapture
{
public:
    LogCapture()
    {
        instance() = this;
        m_previous = qInstallMessageHandler(&LogCapture::handler);
    }
    ~LogCapture()
    {
        qInstallMessageHandler(m_previous);
        instance() = nullptr;
    }
    LogCapture(const LogCapture &) = delete;
    LogCapture &operator=(const LogCapture &) = delete;

    QStringList lines;

    bool contains(const QString &line) const { return lines.contains(line); }

private:
    static LogCapture *&instance()
    {
        static LogCapture *capture = nullptr;
        return capture;
    }
    static void handler(QtMsgType, const QMessageLogContext &, const QString &message)
    {
        if (instance())
            instance()->lines << message;
    }
    QtMessageHandler m_previous = nullptr;
};
