#include "mainform/mainform.h"
#include "ui_mainform.h"

#include "app/global.h"
#include "ipc/ipcmessages.h"
#include "ipc/ipcmform.h"
#include "kit/accessibility.h"
#include "kit/focusring.h"
#include "kit/globalstyle.h"
#include "kit/mymsgbox.h"
#include "kit/toast.h"
#include "kit/windowdrag.h"
#include "mainform/installlogic.h"

#include <QCloseEvent>
#include <QCoreApplication>
#include <QCursor>
#include <QDesktopServices>
#include <QFileDialog>
#include <QtConcurrent/QtConcurrentMap>

#include <algorithm>
#include <functional>
#include <utility>

namespace {

const QString kPrimaryButtonStyle = "background: #5998FF;\nborder-radius: 4px;\nfont-family: "
                                    "Microsoft YaHei;\nfont-size: 14px;\ncolor: #FFFFFF;\n";
const QString kPrimaryButtonHoverStyle = "background: #69A2FF;\nborder-radius: 4px;\nfont-family: "
                                         "Microsoft YaHei;\nfont-size: 14px;\ncolor: #FFFFFF;\n";
constexpr int kToastMs = 3000;

} // namespace

MainForm::MainForm(QWidget *parent) : QDialog(parent), ui(new Ui::MainForm)
{
    ui->setupUi(this);
    setWindowIcon(Global::LogoIcon());
    setWindowFlags(Qt::Dialog | Qt::FramelessWindowHint);
    setAttribute(Qt::WA_TranslucentBackground);
    setWindowTitle("Corvalen");
    ui->label->setText("Corvalen V" + Global::GetVersionNew());
    ui->btnClose->resize(20, 20);

    ui->btnInstall->setNormalStyle(kPrimaryButtonStyle);
    ui->btnInstall->setHoverStyle(kPrimaryButtonHoverStyle);
    ui->btnStartup->setNormalStyle(kPrimaryButtonStyle);
    ui->btnStartup->setHoverStyle(kPrimaryButtonHoverStyle);

    installEventFilter(this);
    ui->btnMore0->installEventFilter(this);
    ui->btnMore1->installEventFilter(this);
    // Plain push buttons get hover events only when asked.
    ui->btnMore0->setAttribute(Qt::WA_Hover);

    ui->btnBrowserPath->setNormalStyle("border: 1px solid #E0E0E0; border-radius: 4px; "
                                       "font-family: Microsoft YaHei; font-size: 14px;");
    ui->btnBrowserPath->setHoverStyle("border: 1px solid #5998FF;color: #5998FF; border-radius: "
                                      "4px; font-family: Microsoft YaHei; font-size: 14px;");
    ui->txtPath->setNormalStyle("border: 1px solid #E0E0E0; border-radius: 4px; font-family: "
                                "Microsoft YaHei; font-size: 14px; color: #54565A;");
    ui->txtPath->setHoverStyle("border: 1px solid #5998FF; border-radius: 4px; font-family: "
                               "Microsoft YaHei; font-size: 14px; color: #54565A;");
    if (Global::GetDisableChoosePath())
        ui->btnBrowserPath->setEnabled(false);

    m_iWidth = width();
    m_pToast = new Toast();
    m_pToast->setAnchorWidget(this);
    m_pToast->hide();

    showChoosePage();
    connect(&m_timerProgress, &QTimer::timeout, this, &MainForm::slUpdateProgress);

    if (Global::IsSelfTest()) {
        setInstallPath("C:\\Tandemo", true);
        setDiskSpace(1500, 10000);
    }

    Global::SetWidgetProperty(ui->btnMore1, "css", "down");
    Global::SetWidgetProperty(ui->btnChkbox, "css", "unchecked");
    connect(ui->btnChkbox, SIGNAL(sgClicked(bool)), this, SLOT(slServiceClicked(bool)));
    connect(ui->btnMore1, SIGNAL(sgFoldState(bool)), this, SLOT(slFoldState(bool)));
    Global::LoadStyleSheet(this, ":/mainform.qss");
    setUpKeyboardAndAccessibility();
}

void MainForm::setUpKeyboardAndAccessibility()
{
    // The keyboard goes in reading order, top to bottom and left to right; the arrow of 更多选项
    // is one stop with its text, and the folded-away path panel none (applyFoldState).
    ui->btnMore1->setFocusPolicy(Qt::NoFocus);
    QWidget *const order[] = {ui->btnClose,   ui->btnInstall,     ui->btnChkbox,
                              ui->btnService, ui->btnPrivate,     ui->btnMore0,
                              ui->txtPath,    ui->btnBrowserPath, ui->btnStartup};
    for (std::size_t i = 1; i < std::size(order); ++i)
        setTabOrder(order[i - 1], order[i]);
    auto *ring = new FocusRing(this, ui->frame);
    ring->addCompanion(ui->btnMore0, ui->btnMore1);

    ui->btnClose->setAccessibleName("关闭");
    ui->btnChkbox->setAccessibleName("我已阅读并同意《服务协议》和《隐私政策》");
    Accessibility::markAsLink(ui->btnService);
    ui->btnService->setAccessibleDescription("在浏览器中打开服务协议");
    Accessibility::markAsLink(ui->btnPrivate);
    ui->btnPrivate->setAccessibleDescription("在浏览器中打开隐私政策");
    ui->btnMore0->setAccessibleDescription("显示或隐藏安装位置");
    ui->btnMore1->setAccessibleName("更多选项");
    ui->txtPath->setAccessibleName("安装位置");
    ui->btnBrowserPath->setAccessibleDescription("选择安装位置");
    Accessibility::markAsProgressBar(ui->lblProgressBg);
    ui->lblProgressBg->setAccessibleName("安装进度");
    applyFoldState();
    ui->btnInstall->setFocus(); // where a keyboard user starts: the window's one action
}

MainForm::~MainForm()
{
    m_checks.waitForFinished();
    delete m_pToast; // a top-level window of its own, not a Qt child
    delete ui;
}

void MainForm::setIPCForm(IPCmForm *pIPCForm)
{
    m_pIPCForm = pIPCForm;
}

void MainForm::setInstallPath(const QString &strPath, bool bWritable)
{
    if (!strPath.isEmpty()) {
        ui->txtPath->setText(strPath);
        ui->txtPath->setCursorPosition(0);
        repaint();
    }
    m_bWritable = bWritable;
}

void MainForm::setDiskSpace(std::uint32_t requiredMB, std::int32_t availableMB)
{
    m_nRequiredMB = requiredMB;
    m_iAvailableMB = availableMB;
    m_bPathMissing = false;
    if (availableMB < 0) {
        m_iAvailableMB = 0;
        m_bPathMissing = true;
        m_pToast->showToast(InstallLogic::missingFolderNotice(ui->txtPath->text()), kToastMs);
    }
    ui->lblSpace->setText(
        QString("所需空间：%1MB 可用空间：%2MB").arg(requiredMB).arg(availableMB));
    repaint();
}

void MainForm::setProgress(int iProgress)
{
    if (m_iState != kInstallingPage)
        return;
    m_iProgress = iProgress > 100 ? 100 : iProgress;
}

void MainForm::quitApp()
{
    QCoreApplication::exit(0);
}

void MainForm::showChoosePage()
{
    m_iState = kChoicePage;
    ui->btnInstall->show();
    ui->frmService->show();
    ui->btnMore0->show();
    ui->btnMore1->show();
    m_bUnfolded = false;
    applyFoldState();
    ui->lblInstalling->hide();
    ui->lblProgressFg->hide();
    ui->lblProgressBg->hide();
    ui->btnStartup->hide();
    repaint();
}

void MainForm::applyFoldState()
{
    const int h = m_bUnfolded ? m_nUnfoldedHeight : m_nFoldedHeight;
    Global::SetWidgetProperty(ui->btnMore1, "css", m_bUnfolded ? "up" : "down");
    // Folded away, the path panel is out of sight: out of the keyboard's reach too.
    ui->txtPath->setFocusPolicy(m_bUnfolded ? Qt::StrongFocus : Qt::NoFocus);
    ui->btnBrowserPath->setFocusPolicy(m_bUnfolded ? Qt::StrongFocus : Qt::NoFocus);
    Accessibility::setExpanded(ui->btnMore0, m_bUnfolded);
    Accessibility::setExpanded(ui->btnMore1, m_bUnfolded);
    setFixedSize(m_iWidth, h);
    ui->frame->setFixedSize(m_iWidth, h);
    ui->frame->move(0, 0);
    if (m_pShadowFrame) {
        m_pShadowFrame->hide();
        m_pShadowFrame->deleteLater();
    }
    m_pShadowFrame = Global::CreateShadowFrame(this, ui->frame, 4, m_iShadowWidth);
}

bool MainForm::eventFilter(QObject *watched, QEvent *event)
{
    if (watched != ui->btnMore0 && watched != ui->btnMore1)
        return QDialog::eventFilter(watched, event);
    if (event->type() == QEvent::HoverEnter) {
        ui->btnMore0->setStyleSheet(
            "font-family: 'Microsoft YaHei';font - size: 14px;color: #5998FF;");
        ui->btnMore1->setStyleSheet(m_bUnfolded
                                        ? "image: url('://images/morechoose_up_hover.svg') ;"
                                        : "image: url('://images/morechoose_down_hover.svg') ;");
    } else if (event->type() == QEvent::HoverLeave) {
        ui->btnMore0->setStyleSheet(
            "font-family: 'Microsoft YaHei';font - size: 14px;color: #838487;");
        ui->btnMore1->setStyleSheet(m_bUnfolded
                                        ? "image: url('://images/morechoose_up_normal.svg') ;"
                                        : "image: url('://images/morechoose_down_normal.svg') ;");
    }
    return QDialog::eventFilter(watched, event);
}

void MainForm::on_btnMore0_clicked()
{
    on_btnMore1_clicked();
}

void MainForm::on_btnMore1_clicked()
{
    m_bUnfolded = !m_bUnfolded;
    applyFoldState();
}

void MainForm::slFoldState(bool) {}

void MainForm::slServiceClicked(bool bChecked)
{
    Global::SetWidgetProperty(ui->btnChkbox, "css", bChecked ? "checked" : "unchecked");
}

void MainForm::on_btnBrowserPath_clicked()
{
    const QString strDir = QFileDialog::getExistingDirectory(
        this, tr("Open Directory"), ui->txtPath->text(),
        QFileDialog::ShowDirsOnly | QFileDialog::DontResolveSymlinks);
    if (strDir.isEmpty())
        return;
    const QString strPath = InstallLogic::browsedInstallPath(strDir);
    // Outside self-test the engine decides whether the new folder is writable.
    setInstallPath(strPath, Global::IsSelfTest());
    notifyInstallPath(strPath);
}

void MainForm::notifyInstallPath(const QString &strPath)
{
    if (m_pIPCForm)
        m_pIPCForm->sendInstallPath(strPath);
}

void MainForm::on_btnService_clicked()
{
    QDesktopServices::openUrl(InstallLogic::serviceAgreementUrl());
}

void MainForm::on_btnPrivate_clicked()
{
    QDesktopServices::openUrl(InstallLogic::privacyPolicyUrl());
}

void MainForm::on_btnClose_clicked()
{
    if (m_iState == kCompletedPage) {
        QCoreApplication::exit(0);
        return;
    }
    MyMsgBox box(this);
    m_bCloseAsked = true;
    const int iAnswer = box.showMsg("确定退出安装吗？", QString());
    m_bCloseAsked = false;
    const std::optional<bool> held = std::exchange(m_heldCheck, std::nullopt);
    if (iAnswer != 1) {
        if (held)
            handleAppCheck(*held);
        return;
    }
    m_bQuitting = true; // a check that ends from now on is dropped too
    if (m_pIPCForm)
        m_pIPCForm->sendCancel();
    quitLater(1000);
}

void MainForm::reject()
{
    on_btnClose_clicked();
}

void MainForm::closeEvent(QCloseEvent *event)
{
    event->ignore();
    on_btnClose_clicked();
}

void MainForm::on_btnInstall_clicked()
{
    const QString strNotice = InstallLogic::installRefusal(
        ui->btnChkbox->getCheckState(), m_bPathMissing, static_cast<std::uint32_t>(m_iAvailableMB),
        m_nRequiredMB, m_bWritable, ui->txtPath->text());
    if (!strNotice.isEmpty()) {
        m_pToast->showToast(strNotice, kToastMs);
        return;
    }

    delete m_pWatcher; // a check still running reports to nobody
    m_pWatcher = new QFutureWatcher<bool>(this);
    connect(m_pWatcher, &QFutureWatcher<bool>::resultReadyAt, this, &MainForm::slCheckAppRunning);
    std::function<bool(const QString &)> isRunning = [](const QString &strName) {
        return Global::IsProcessExists(strName);
    };
    const QFuture<bool> check = QtConcurrent::mapped(QStringList{"Tandemo.exe"}, isRunning);
    const QList<QFuture<bool>> earlier = m_checks.futures();
    if (std::all_of(earlier.begin(), earlier.end(),
                    [](const QFuture<bool> &f) { return f.isFinished(); }))
        m_checks.clearFutures();
    m_checks.addFuture(check);
    m_pWatcher->setFuture(check);
}

void MainForm::slCheckAppRunning(int resultIndex)
{
    const bool bRunning = m_pWatcher->resultAt(resultIndex);
    if (m_bQuitting)
        return;
    if (m_bCloseAsked)
        m_heldCheck = bRunning;
    else
        handleAppCheck(bRunning);
}

void MainForm::handleAppCheck(bool bRunning)
{
    if (bRunning) {
        MyMsgBox box(this);
        if (box.showMsg("系统正在运行，是否关闭应用后继续安装？", QString()) != 1)
            return;
        for (const QString &strName : appSuiteProcessNames())
            Global::KillProcessByProcessName(strName, false);
    }
    startInstall();
}

void MainForm::startInstall()
{
    showInstallingPage();
    if (m_pIPCForm)
        m_pIPCForm->sendStartInstall();
    startSelfTestProgress();
}

void MainForm::startInstallWithoutAgreement()
{
    for (const QString &strName : appSuiteProcessNames())
        Global::KillProcessByProcessName(strName, false);
    startInstall();
}

void MainForm::hideChoiceGroup()
{
    ui->btnInstall->hide();
    ui->frmService->hide();
    ui->btnMore0->hide();
    ui->btnMore1->hide();
    m_bUnfolded = false;
    applyFoldState();
}

void MainForm::showInstallingPage()
{
    m_iState = kInstallingPage;
    hideChoiceGroup();
    ui->lblInstalling->show();
    ui->lblProgressFg->resize(16, ui->lblProgressFg->height());
    ui->lblProgressFg->show();
    ui->lblProgressBg->show();
    ui->btnStartup->hide();
    m_timerProgress.start(100);
    repaint();
}

void MainForm::slUpdateProgress()
{
    const int w = InstallLogic::progressBarWidth(ui->lblProgressBg->width(), m_iProgress);
    ui->lblProgressFg->resize(w, ui->lblProgressFg->height());
    repaint();
    Accessibility::announceValue(ui->lblProgressBg, m_iProgress);
    if (m_iProgress == 100) {
        Global::Delay(1000);
        showCompletedPage();
    }
}

void MainForm::showCompletedPage()
{
    m_iState = kCompletedPage;
    hideChoiceGroup();
    ui->lblInstalling->setText("安装完成");
    ui->lblInstalling->show();
    ui->lblProgressFg->hide();
    ui->lblProgressBg->hide();
    ui->lblLogo->setPixmap(QPixmap("://images/completed@2x.png"));
    ui->btnStartup->show();
    ui->btnStartup->setFocus();
    m_timerProgress.stop();
    repaint();
}

void MainForm::on_btnStartup_clicked()
{
    if (m_pIPCForm)
        m_pIPCForm->sendStartup();
    quitLater(1000);
}

void MainForm::startSelfTestProgress()
{
    if (!Global::IsSelfTest())
        return;
    connect(&m_timerSelfTest, &QTimer::timeout, this, [this] {
        m_iProgress += 2;
        if (m_iProgress > 100)
            m_iProgress = 100;
        if (m_pIPCForm)
            m_pIPCForm->postToSelf(WM_MYPROGRESS, static_cast<std::uint64_t>(m_iProgress));
        if (m_iProgress == 100)
            m_timerSelfTest.stop();
    });
    m_timerSelfTest.start(100);
}

void MainForm::mousePressEvent(QMouseEvent *)
{
    m_bPressed = true;
    m_ptLast = QCursor::pos();
}

void MainForm::mouseReleaseEvent(QMouseEvent *)
{
    m_bPressed = false;
}

void MainForm::mouseMoveEvent(QMouseEvent *)
{
    if (m_bPressed)
        followCursor(this, m_ptLast);
}
