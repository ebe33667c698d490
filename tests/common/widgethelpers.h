// What the tests of the windows share: named children, modal answers, the window that is up.
#pragma once

#include "fakeplatform.h"
#include "pixels.h"

#include <QtWidgets>

template <typename T = QWidget> T *child(const QObject *parent, const char *name)
{
    T *c = parent ? parent->findChild<T *>(name) : nullptr;
    return c ? c : (qFatal("no child %s", name), nullptr);
}

// Clicks `button` of the next modal box once it is up, or presses Escape when it is empty;
// keeps its question. Waits no longer than `context` lives.
inline void answerNextBox(QObject *context, const QString &button, QString *asked)
{
    auto *poll = new QTimer(context);
    QObject::connect(poll, &QTimer::timeout, [=] {
        QWidget *box = QApplication::activeModalWidget();
        if (!box)
            return;
        poll->stop(), poll->deleteLater();
        *asked = child<QLabel>(box, "lblLine1")->text();
        if (button.isEmpty())
            QTest::keyClick(box->focusWidget() ? box->focusWidget() : box, Qt::Key_Escape);
        else
            child<QPushButton>(box, qPrintable(button))->click();
    });
    poll->start(20);
}

// The visible top-level window of that class, or null.
template <typename T> T *shown()
{
    for (QWidget *w : QApplication::topLevelWidgets())
        if (qobject_cast<T *>(w) && w->isVisible())
            return static_cast<T *>(w);
    return nullptr;
}
