#include "kit/mymsgbox.h"
#include "ui_mymsgbox.h"

#include "kit/focusring.h"
#include "kit/globalstyle.h"
#include "kit/windowdrag.h"

#include <QCursor>
#include <QMouseEvent>

MyMsgBox::MyMsgBox(QWidget *parent) : QDialog(parent), ui(new Ui::MyMsgBox)
{
    ui->setupUi(this);
    setWindowIcon(Global::LogoIcon());
    setWindowFlags(Qt::FramelessWindowHint | Qt::Dialog);
    setAttribute(Qt::WA_TranslucentBackground);
    setWindowTitle("Corvalen");

    ui->lblTitle->setGeometry(0, ui->btnClose->y(), width(), 20);
    ui->btnClose->raise();

    ui->btnOK->setNormalStyle("background: #5998FF; border-radius: 4px; font-family: Microsoft "
                              "YaHei; font-size: 14px; color: #FFFFFF;");
    ui->btnOK->setHoverStyle("background: #69A2FF; border-radius: 4px; font-family: Microsoft "
                             "YaHei; font-size: 14px; color: #FFFFFF;");
    ui->btnCancel->setNormalStyle("border: 1px solid #E0E0E0; background: transparent; "
                                  "border-radius: 4px; font-family: Microsoft YaHei; font-size: "
                                  "14px; color: #262626;");

    Global::LoadStyleSheet(this, ":/mymsgbox.qss");
    Global::CreateShadowFrame(this, ui->frame, 4, 8);

    // The keyboard in reading order: ✕ at the top, then the buttons from the left.
    setTabOrder(ui->btnClose, ui->btnCancel);
    setTabOrder(ui->btnCancel, ui->btnOK);
    ui->btnClose->setAccessibleName("关闭");
    new FocusRing(this, ui->frame);
}

MyMsgBox::~MyMsgBox()
{
    delete ui;
}

void MyMsgBox::setTitle(const QString &strTitle)
{
    ui->lblTitle->setText(strTitle);
}

void MyMsgBox::setLines(const QString &strLine1, const QString &strLine2)
{
    ui->lblLine1->setText(strLine1);
    ui->lblLine2->setText(strLine2);
}

void MyMsgBox::setLinesAlignment(Qt::Alignment line1, Qt::Alignment line2)
{
    ui->lblLine1->setAlignment(line1);
    ui->lblLine2->setAlignment(line2);
}

void MyMsgBox::setButtonTexts(const QString &strOK, const QString &strCancel)
{
    ui->btnOK->setText(strOK);
    ui->btnCancel->setText(strCancel);
}

void MyMsgBox::setButtonsVisible(bool bCancelVisible, bool bOKVisible)
{
    const int y = 160;
    const int frameWidth = ui->frame->width();
    if (bCancelVisible && bOKVisible) {
        ui->btnCancel->move(80, y);
        ui->btnCancel->show();
        ui->btnOK->move(230, y);
        ui->btnOK->show();
    } else if (bCancelVisible) {
        ui->btnOK->hide();
        ui->btnCancel->move((frameWidth - ui->btnCancel->width()) / 2, y);
        ui->btnCancel->show();
    } else if (bOKVisible) {
        ui->btnCancel->hide();
        ui->btnOK->move((frameWidth - ui->btnOK->width()) / 2, y);
        ui->btnOK->show();
    } else {
        ui->btnCancel->hide();
        ui->btnOK->hide();
    }
}

int MyMsgBox::showMsg(const QString &strLine1, const QString &strLine2)
{
    setLines(strLine1, strLine2);
    // Read out as a dialog whose description is its question.
    setAccessibleName(ui->lblTitle->text());
    setAccessibleDescription(strLine2.isEmpty() ? strLine1 : strLine1 + "\n" + strLine2);
    // Return answers what the focus is on: the cancel, as the close button it stands for would.
    (ui->btnCancel->isHidden() ? ui->btnOK : ui->btnCancel)->setFocus();
    return exec();
}

void MyMsgBox::mousePressEvent(QMouseEvent *)
{
    m_bPressed = true;
    m_ptLast = QCursor::pos();
}

void MyMsgBox::mouseReleaseEvent(QMouseEvent *)
{
    m_bPressed = false;
}

void MyMsgBox::mouseMoveEvent(QMouseEvent *)
{
    if (m_bPressed)
        followCursor(this, m_ptLast);
}

void MyMsgBox::on_btnOK_clicked()
{
    accept();
}

void MyMsgBox::on_btnCancel_clicked()
{
    reject();
}

void MyMsgBox::on_btnClose_clicked()
{
    reject();
}
