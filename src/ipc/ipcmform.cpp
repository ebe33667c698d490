#include "ipc/ipcmform.h"
#include "ui_ipcmform.h"

#include "app/global.h"
#include "ipc/initpath.h"
#include "ipc/ipcmessages.h"
#include "mainform/mainform.h"

#include <QCoreApplication>
#include <QDebug>
#include <QFile>
#include <QFileInfo>

IPCmForm::IPCmForm(QWidget *parent) : QWidget(parent), ui(new Ui::IPCmForm)
{
    ui->setupUi(this);
    m_hIPCWnd = Global::GetIPCWnd();
    if (m_hIPCWnd == 0)
        return;
    connect(&m_timer, &QTimer::timeout, this, &IPCmForm::slTimer);
    m_timer.start(100);
}

IPCmForm::~IPCmForm()
{
    delete ui;
}

void IPCmForm::setMainForm(MainForm *pMainForm)
{
    m_pMainForm = pMainForm;
}

void IPCmForm::slTimer()
{
    // The engine's own window stays hidden for the whole run, even if the engine shows it.
    if (m_hIPCWnd != 0)
        os::platform().hideWindow(m_hIPCWnd);
}

bool IPCmForm::nativeEvent(const QByteArray &eventType, void *message, long *result)
{
    const std::optional<os::NativeMessage> decoded =
        os::platform().decodeNativeMessage(message, os::kNativeMessageRecordSize);
    const char *name =
        decoded && isForFrontEnd(decoded->message) ? messageName(decoded->message) : nullptr;
    if (!name) {
        // Ours but not understood: Qt would only complain about an unknown client message.
        if (decoded && decoded->privateCarrier)
            return true;
        return QWidget::nativeEvent(eventType, message, result);
    }

    qDebug().noquote() << QString("IPCmForm::nativeEvent: recv message from Installer(hWnd=%1), "
                                  "msg=%2, wp=%3, lp=%4")
                              .arg(static_cast<std::int32_t>(decoded->window))
                              .arg(QString::fromLatin1(name))
                              .arg(decoded->wParam)
                              .arg(decoded->lParam);

    const auto wParam = static_cast<std::uint32_t>(decoded->wParam);
    const auto lParam = static_cast<std::uint32_t>(decoded->lParam);
    switch (decoded->message) {
    case WM_PATH_INFO: {
        QString strPath;
        if (m_pMainForm && wParam != 0) {
            strPath = getInitPath();
            setWindowTitle(strPath);
        }
        if (m_pMainForm)
            m_pMainForm->setInstallPath(strPath, lParam != 0);
        return true;
    }
    case WM_MYPROGRESS:
        if (m_pMainForm)
            m_pMainForm->setProgress(static_cast<std::int32_t>(wParam));
        return true;
    case WM_DISK_SPACE:
        if (m_pMainForm)
            m_pMainForm->setDiskSpace(wParam, static_cast<std::int32_t>(lParam));
        return true;
    default: // WM_COMPLETE_INSTALL
        if (m_pMainForm)
            m_pMainForm->quitApp();
        else
            QCoreApplication::exit(0); // the engine is done with us, linked or not
        return decoded->privateCarrier || QWidget::nativeEvent(eventType, message, result);
    }
}

void IPCmForm::sendMsg(std::uint32_t msg, std::uint64_t wParam, std::int64_t lParam)
{
    const bool ok = m_hIPCWnd != 0 && os::platform().postMessage(m_hIPCWnd, msg, wParam, lParam);
    qDebug().noquote()
        << QString("IPCmForm::sendMsg: send message to window(%1) %2. msg=%3, wp=%4, lp=%5")
               .arg(static_cast<qint64>(m_hIPCWnd))
               .arg(ok ? "ok" : "fail")
               .arg(static_cast<qint64>(msg))
               .arg(static_cast<qint64>(wParam))
               .arg(lParam);
}

void IPCmForm::postToSelf(std::uint32_t msg, std::uint64_t wParam)
{
    os::platform().postMessage(static_cast<os::WindowHandle>(winId()), msg, wParam, 0);
}

void IPCmForm::sendWindowHandle()
{
    sendMsg(WM_IPC_HWND, static_cast<std::uint64_t>(winId()), 0);
}

void IPCmForm::sendInstallPath(const QString &strPath)
{
    setWindowTitle(strPath);
    sendMsg(WM_INSTALL_PATH, 0, 0);
}

void IPCmForm::sendStartInstall()
{
    sendMsg(WM_INSTALL_PATH, 1, 0);
}

void IPCmForm::sendStartup()
{
    sendMsg(WM_COMPLETE_INSTALL, 0, 0);
}

void IPCmForm::sendCancel()
{
    sendMsg(WM_CANCEL_INSTALL, 0, 0);
}

QString IPCmForm::getInitPath()
{
    QString strInitPath;
    const bool bIsUnicodeNsis = Global::GetUnicodeNsis();
    qDebug() << "bIsUnicodeNsis: " << bIsUnicodeNsis;

    if (bIsUnicodeNsis) {
        const QString strIPCFilePath = Global::GetIPCFilePath();
        if (!strIPCFilePath.isEmpty() && QFileInfo(strIPCFilePath).isFile()) {
            QFile file(strIPCFilePath);
            if (file.open(QFile::ReadOnly)) {
                const QByteArray bytes = file.readAll();
                file.close();
                strInitPath = InitPath::decodeIpcFile(bytes);
                qDebug() << "strInitPath from ipcFile: " << strInitPath;
            }
        }
    }

    if (strInitPath.isEmpty() && m_hIPCWnd != 0) {
        const std::string title = os::platform().windowText(m_hIPCWnd);
        os::platform().debugOutput("GetWindowTextA: " + title);
        strInitPath = InitPath::decodeLocal8Bit(title);
        qDebug() << "strInitPath from Title: " << strInitPath;
    }

    if (strInitPath.isEmpty()) {
        const std::string appData = os::platform().environmentVariable("APPDATA");
        os::platform().debugOutput("GetEnvironmentVariableA(\"APPDATA\"): " + appData);
        strInitPath = InitPath::decodeLocal8Bit(appData);
        qDebug() << "strInitPath from Environment: " << strInitPath;
        if (strInitPath.isEmpty())
            strInitPath = "C:\\Tandemo";
        else
            strInitPath += "\\Tandemo";
        qDebug() << "strInitPath default: " << strInitPath;
    }
    return strInitPath;
}
