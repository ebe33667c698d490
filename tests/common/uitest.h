// Small helpers of the widget tests: named children, modal answers, a bounded event loop.
#pragma once

#include <QApplication>
#include <QLabel>
#include <QPushButton>
#include <QTest>
#include <QTimer>

template <typename T = QWidget> T *child(const QObject *parent, const char *name)
{
    T *c = parent->findChild<T *>(name);
    if (!c)
        qFatal("no child %s", name);
    return c;
}

// Clicks `button` ("btnOK", "btnCancel", "btnClose") of the next modal box, or presses Escape
// when it is empty; stores the box's first line in `asked` when given.
inline void answerNextBox(const QString &button, QString *asked = nullptr)
{
    QTimer::singleShot(30, [button, asked] {
        QWidget *box = QApplication::activeModalWidget();
        QVERIFY(box);
        if (asked)
            *asked = child<QLabel>(box, "lblLine1")->text();
        if (button.isEmpty())
            QTest::keyClick(box->focusWidget() ? box->focusWidget() : box, Qt::Key_Escape);
        else
            child<QPushButton>(box, qPrintable(button))->click();
    });
}

// Runs the event loop until the code under test ends it; 3 when it never does.
inline int execBounded(int ms = 10000)
{
    QTimer fallback;
    fallback.setSingleShot(true);
    QObject::connect(&fallback, &QTimer::timeout, [] { QCoreApplication::exit(3); });
    fallback.start(ms);
    return QCoreApplication::exec();
}
