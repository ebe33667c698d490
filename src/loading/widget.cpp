#include "loading/widget.h"
#include "ui_widget.h"

#include "app/global.h"
#include "ipc/ipcmform.h"
#include "kit/globalstyle.h"
#include "kit/mymsgbox.h"
#include "kit/windowdrag.h"
#include "loading/progresstext.h"
#include "loading/versioncompare.h"
#include "mainform/mainform.h"

#include <QCoreApplication>
#include <QCursor>
#include <QDebug>
#include <QFrame>
#include <QGraphicsEffect>
#include <QStringList>
#include <QTimer>
#include <QTimerEvent>

Widget::Widget(QWidget *parent) : QWidget(parent), ui(new Ui::Widget)
{
    ui->setupUi(this);
    setWindowFlags(Qt::FramelessWindowHint);
    setAttribute(Qt::WA_TranslucentBackground);
    setAccessibleName("Corvalen 安装程序正在启动");
    hide();
}

Widget::~Widget()
{
    // The windows it made live until the event loop is over; they go with it.
    delete m_pMainForm;
    delete m_pIPCForm;
    delete ui;
}

void Widget::init()
{
    m_pIPCForm = new IPCmForm();
    m_pIPCForm->hide();
    if (!Global::IsSelfTest()) {
        connect(&m_timerCheck, &QTimer::timeout, this, &Widget::slCheckProcess);
        m_timerCheck.start(1000);
    }
    QTimer::singleShot(10, this, [this] { checkVersion(); });
    show();
}

void Widget::startInstSvc(long iInstallerProcId)
{
    const QString strParam = QString("%1 %2")
                                 .arg(static_cast<qulonglong>(os::platform().currentProcessId()))
                                 .arg(static_cast<qlonglong>(iInstallerProcId));
    std::uint32_t processId = 0;
    m_hSvcProcess = Global::StartProcess("TandemoInstSvc.exe", strParam, processId);
    if (m_hSvcProcess != 0)
        qDebug().noquote() << QString("CreateProcess(\"TandemoInstSvc.exe\", \"%1\") ok, pid=%2")
                                  .arg(strParam)
                                  .arg(processId);
    else
        qDebug().noquote()
            << QString("CreateProcess(\"TandemoInstSvc.exe\", \"%1\") fail").arg(strParam);
}

void Widget::slCheckProcess()
{
    const std::int32_t iInstallerProcId = Global::GetInstallerProcId();
    if (iInstallerProcId <= 0 ||
        !Global::IsProcessExists(static_cast<std::uint32_t>(iInstallerProcId))) {
        qDebug().noquote() << QString("Installer(pid=%1) not exists, exit").arg(iInstallerProcId);
        QCoreApplication::exit(0);
    }
    // The service is kept alive for as long as the engine lives.
    if (m_hSvcProcess != 0 && !os::platform().hasProcessEnded(m_hSvcProcess))
        return;
    startInstSvc(iInstallerProcId);
}

void Widget::checkVersion()
{
    const QString strVersionNew = Global::GetVersionNew();
    const QString strVersionOld = Global::GetVersionOld();
    const std::optional<int> result = compareVersions(strVersionNew, strVersionOld);

    bool bProceed = true;
    if (result && *result == -1) {
        MyMsgBox box;
        box.setButtonsVisible(false, true);
        box.showMsg(
            QString("已安装高版本V%1，如果要安装当前版本，请先卸载高版本。").arg(strVersionOld),
            QString());
        bProceed = false;
    } else if (result && *result == 0) {
        MyMsgBox box;
        bProceed =
            box.showMsg("该版本已安装，继续安装会覆盖原先的版本，是否继续安装？", QString()) != 0;
    }

    if (!bProceed) {
        if (m_pIPCForm)
            m_pIPCForm->sendCancel();
        quitLater(1000);
        return;
    }

    m_pMainForm = new MainForm();
    m_pMainForm->hide();
    m_pMainForm->setIPCForm(m_pIPCForm);
    m_pIPCForm->setMainForm(m_pMainForm);
    m_pIPCForm->sendWindowHandle();
    startAnimation();
}

void Widget::startAnimation()
{
    ui->lblProgress->setText(progressText(m_iProgress));
    m_iTimerId = startTimer(50, Qt::CoarseTimer);
    m_pShadowFrame = Global::CreateShadowFrame(this, ui->frame, 4, 8);
    show();
}

void Widget::timerEvent(QTimerEvent *)
{
    m_iProgress += 10;
    if (m_iProgress > 100)
        m_iProgress = 100;
    ui->lblProgress->setText(progressText(m_iProgress));
    if (m_iProgress != 100)
        return;
    killTimer(m_iTimerId);
    hide();
    releaseSurface();
    m_pMainForm->show();
    if (Global::GetWithoutAgreement())
        m_pMainForm->startInstallWithoutAgreement();
}

void Widget::releaseSurface()
{
    // Never shown again after the hand-over: its surface and the shadow's cached image would
    // otherwise stay for the life of the process, and be counted in the main window's peak.
    if (QGraphicsEffect *effect = m_pShadowFrame ? m_pShadowFrame->graphicsEffect() : nullptr)
        effect->setEnabled(false);
    destroy();
}

void Widget::mousePressEvent(QMouseEvent *)
{
    m_bPressed = true;
    m_ptLast = QCursor::pos();
}

void Widget::mouseReleaseEvent(QMouseEvent *)
{
    m_bPressed = false;
}

void Widget::mouseMoveEvent(QMouseEvent *)
{
    if (m_bPressed)
        followCursor(this, m_ptLast);
}
