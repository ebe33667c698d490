#pragma once

#include <QTimer>
#include <QWidget>

#include <cstdint>

#include "os/os.h"

namespace Ui {
class IPCmForm;
}
class MainForm;

// Hidden window that carries the conversation with the installer engine.
class IPCmForm final : public QWidget
{
    Q_OBJECT
    Q_DISABLE_COPY_MOVE(IPCmForm)

public:
    explicit IPCmForm(QWidget *parent = nullptr);
    ~IPCmForm() override;

    void setMainForm(MainForm *pMainForm);

    void sendMsg(std::uint32_t msg, std::uint64_t wParam, std::int64_t lParam);
    // Self-test: the engine's message posted to this window, so it takes the engine's path.
    void postToSelf(std::uint32_t msg, std::uint64_t wParam);
    void sendWindowHandle();
    void sendInstallPath(const QString &strPath);
    void sendStartInstall();
    void sendStartup();
    void sendCancel();

    QString getInitPath();

    // Public so that a record can be fed without a display; the dispatcher calls it as usual.
    bool nativeEvent(const QByteArray &eventType, void *message, long *result) override;

private slots:
    void slTimer();

private:
    Ui::IPCmForm *ui;
    os::WindowHandle m_hIPCWnd = 0;
    MainForm *m_pMainForm = nullptr;
    QTimer m_timer;
};
