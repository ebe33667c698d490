#pragma once

#include <QPoint>
#include <QTimer>
#include <QWidget>

#include <cstdint>

#include "os/os.h"

namespace Ui {
class Widget;
}
class MainForm;
class QFrame;
class IPCmForm;

// The loading window; also hosts the helper service, the installer watchdog and the
// version gate.
class Widget final : public QWidget
{
    Q_OBJECT
    Q_DISABLE_COPY_MOVE(Widget)

public:
    explicit Widget(QWidget *parent = nullptr);
    ~Widget() override;

    void startInstSvc(long iInstallerProcId);
    void init();
    void checkVersion();

protected:
    void timerEvent(QTimerEvent *event) override;
    void mousePressEvent(QMouseEvent *event) override;
    void mouseReleaseEvent(QMouseEvent *event) override;
    void mouseMoveEvent(QMouseEvent *event) override;

private slots:
    void slCheckProcess();

private:
    void startAnimation();
    void releaseSurface();

    bool m_bPressed = false;
    QPoint m_ptLast;
    Ui::Widget *ui;
    int m_iTimerId = 0;
    std::uint32_t m_iProgress = 0;
    QFrame *m_pShadowFrame = nullptr;
    MainForm *m_pMainForm = nullptr;
    IPCmForm *m_pIPCForm = nullptr;
    QTimer m_timerCheck{this}; // a child like the window's other parts
    os::ProcessHandle m_hSvcProcess = 0;
};
