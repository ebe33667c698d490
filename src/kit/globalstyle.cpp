#include "kit/globalstyle.h"
#include "kit/shadoweffect.h"

#include <QCoreApplication>
#include <QDebug>
#include <QElapsedTimer>
#include <QFile>
#include <QFrame>
#include <QGraphicsDropShadowEffect>
#include <QIcon>
#include <QPixmap>
#include <QStyle>
#include <QTextStream>
#include <QWidget>

namespace Global {

bool LoadStyleSheet(QWidget *widget, const QString &strPath)
{
    if (!widget)
        return false;
    QFile file(strPath);
    if (!file.open(QFile::ReadOnly)) {
        qWarning() << "style sheet" << strPath << "not read:" << file.errorString();
        return false;
    }
    QTextStream stream(&file);
    stream.setCodec("UTF-8"); // also drops the byte-order mark
    const QString text = stream.readAll();
    file.close();
    widget->setStyleSheet(text);
    return true;
}

void SetWidgetProperty(QWidget *widget, const char *name, const QString &value)
{
    widget->setProperty(name, value);
    // Attribute selectors are only evaluated on polish.
    widget->style()->unpolish(widget);
    widget->style()->polish(widget);
}

QFrame *CreateShadowFrame(QWidget *host, QWidget *content, int radius, int shadowWidth)
{
    const QSize size = host->size();
    host->setFixedSize(size.width() + 2 * shadowWidth, size.height() + 2 * shadowWidth);

    auto *frame = new QFrame(host);
    const QString style =
        QString("QFrame{background-color: #FFFFFF; border-radius:%1px;}").arg(radius);
    frame->setStyleSheet(style);
    // One pixel shorter than the content, so the backing never peeks out below it.
    frame->setGeometry(shadowWidth, shadowWidth, size.width(), size.height() - 1);

    auto *shadow = new ShadowEffect(frame, host);
    shadow->setOffset(0, 0);
    shadow->setColor(QColor(0, 0, 0, 42));
    shadow->setBlurRadius(shadowWidth);
    frame->setGraphicsEffect(shadow);
    frame->show();

    if (content) {
        content->setFixedSize(size);
        content->move(shadowWidth, shadowWidth);
        content->show();
        content->raise();
    }
    return frame;
}

void Delay(unsigned int ms)
{
    QElapsedTimer timer;
    timer.start();
    while (static_cast<quint64>(timer.elapsed()) < ms)
        QCoreApplication::processEvents(QEventLoop::AllEvents);
}

QIcon LogoIcon()
{
    // Built from the pixmap cache's copy, which the logo labels already hold; an icon made
    // from the file would decode its own 360 KB copy for every window.
    return QIcon(QPixmap(QStringLiteral(":/images/logo@3x.png")));
}

} // namespace Global
