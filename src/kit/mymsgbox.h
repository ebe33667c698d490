#pragma once

#include <QDialog>
#include <QPoint>

namespace Ui {
class MyMsgBox;
}

// The program's modal question box: showMsg returns 1 for the confirm button, 0 otherwise.
class MyMsgBox final : public QDialog
{
    Q_OBJECT
    Q_DISABLE_COPY_MOVE(MyMsgBox)

public:
    explicit MyMsgBox(QWidget *parent = nullptr);
    ~MyMsgBox() override;

    void setTitle(const QString &strTitle);
    void setLines(const QString &strLine1, const QString &strLine2);
    void setLinesAlignment(Qt::Alignment line1, Qt::Alignment line2);
    void setButtonTexts(const QString &strOK, const QString &strCancel);
    void setButtonsVisible(bool bCancelVisible, bool bOKVisible);
    int showMsg(const QString &strLine1, const QString &strLine2);

protected:
    void mousePressEvent(QMouseEvent *event) override;
    void mouseReleaseEvent(QMouseEvent *event) override;
    void mouseMoveEvent(QMouseEvent *event) override;

private slots:
    void on_btnOK_clicked();
    void on_btnCancel_clicked();
    void on_btnClose_clicked();

private:
    bool m_bPressed = false;
    QPoint m_ptLast;
    Ui::MyMsgBox *ui;
};
