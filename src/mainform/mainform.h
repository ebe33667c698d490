#pragma once

#include <QDialog>
#include <QFutureSynchronizer>
#include <QFutureWatcher>

#include <QPoint>
#include <QTimer>
#include <optional>

#include <cstdint>

namespace Ui {
class MainForm;
}
class IPCmForm;
class QFrame;
class Toast;

// The main installer window: choice page, installing page, completion page.
class MainForm final : public QDialog
{
    Q_OBJECT
    Q_DISABLE_COPY_MOVE(MainForm)

public:
    explicit MainForm(QWidget *parent = nullptr);
    ~MainForm() override;

    void setIPCForm(IPCmForm *pIPCForm);
    void setInstallPath(const QString &strPath, bool bWritable);
    void setDiskSpace(std::uint32_t requiredMB, std::int32_t availableMB);
    void setProgress(int iProgress);
    void quitApp();
    void startInstallWithoutAgreement();

    // Escape and the window manager's close go through the same question as the close button.
    void reject() override;

private slots:
    void on_btnClose_clicked();
    void on_btnInstall_clicked();
    void on_btnMore0_clicked();
    void on_btnMore1_clicked();
    void on_btnBrowserPath_clicked();
    void on_btnStartup_clicked();
    void on_btnService_clicked();
    void on_btnPrivate_clicked();
    void slUpdateProgress();
    void slCheckAppRunning(int resultIndex);
    void slServiceClicked(bool bChecked);
    void slFoldState(bool bFolded);

protected:
    bool eventFilter(QObject *watched, QEvent *event) override;
    void mousePressEvent(QMouseEvent *event) override;
    void mouseReleaseEvent(QMouseEvent *event) override;
    void mouseMoveEvent(QMouseEvent *event) override;
    void closeEvent(QCloseEvent *event) override;

private:
    void setUpKeyboardAndAccessibility();
    void applyFoldState();
    void showChoosePage();
    void showInstallingPage();
    // Leaves the choice page: its buttons hidden, the options folded away.
    void hideChoiceGroup();
    void showCompletedPage();
    void notifyInstallPath(const QString &strPath);
    void startInstall();
    void handleAppCheck(bool bRunning);
    void startSelfTestProgress();

    bool m_bPressed = false;
    QPoint m_ptLast;
    Ui::MainForm *ui;
    bool m_bUnfolded = false;
    int m_nFoldedHeight = 330;
    int m_nUnfoldedHeight = 410;
    enum Page : int
    {
        kChoicePage,
        kInstallingPage,
        kCompletedPage
    };
    int m_iState = kChoicePage;
    QTimer m_timerSelfTest;
    QTimer m_timerProgress;
    int m_iProgress = 0;
    IPCmForm *m_pIPCForm = nullptr;
    std::uint32_t m_nRequiredMB = 0;
    std::int32_t m_iAvailableMB = 0;
    bool m_bWritable = false;
    bool m_bPathMissing = false;
    QFrame *m_pShadowFrame = nullptr;
    int m_iWidth = 460;
    int m_iShadowWidth = 8;
    Toast *m_pToast = nullptr;
    QFutureWatcher<bool> *m_pWatcher = nullptr;
    // Every check started, superseded ones too: none may outlive the window.
    QFutureSynchronizer<bool> m_checks;
    // A check's result that came while the close question was open waits for its answer.
    bool m_bCloseAsked = false;
    std::optional<bool> m_heldCheck;
    bool m_bQuitting = false;
};
