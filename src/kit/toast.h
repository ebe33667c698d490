#pragma once

#include <QElapsedTimer>
#include <QTimer>
#include <QWidget>

namespace Ui {
class Toast;
}

// One-line notice centred over its anchor window, fading out linearly.
class Toast final : public QWidget
{
    Q_OBJECT
    Q_DISABLE_COPY_MOVE(Toast)

public:
    explicit Toast(QWidget *parent = nullptr);
    ~Toast() override;

    void setAnchorWidget(QWidget *anchor);
    void showToast(const QString &strText, int iDurationMs);

private slots:
    void slTimeout();

private:
    Ui::Toast *ui;
    QTimer m_timer;
    QElapsedTimer m_elapsedTime;
    int m_iDurationMs = 0;
    QWidget *m_pAnchor = nullptr;
};
