// Answers the next modal message box from the event loop, as a person would.
#pragma once

#include <QApplication>
#include <QLabel>
#include <QPushButton>
#include <QTest>
#include <QTimer>

// Clicks `button` ("btnOK", "btnCancel", "btnClose") of the next modal box, or presses Escape
// when it is empty; stores the box's first line in `asked` when given.
inline void answerNextBox(const QString &button, QString *asked = nullptr)
{
    QTimer::singleShot(30, [button, asked] {
        QWidget *box = QApplication::activeModalWidget();
        QVERIFY(box);
        if (asked)
            *asked = box->findChild<QLabel *>("lblLine1")->text();
        if (button.isEmpty())
            QTest::keyClick(box->focusWidget() ? box->focusWidget() : box, Qt::Key_Escape);
        else
            box->findChild<QPushButton *>(button)->click();
    });
}
