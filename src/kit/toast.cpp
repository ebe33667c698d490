#include "kit/toast.h"
#include "ui_toast.h"

#include "kit/accessibility.h"
#include "kit/globalstyle.h"

#include <QFontMetrics>
#include <QGuiApplication>
#include <QScreen>

Toast::Toast(QWidget *parent) : QWidget(parent), ui(new Ui::Toast)
{
    ui->setupUi(this);
    setWindowFlags(windowFlags() | Qt::FramelessWindowHint | Qt::Tool);
    setAttribute(Qt::WA_TranslucentBackground);
    // A notice must never pull the keyboard away from the window it talks about.
    setAttribute(Qt::WA_ShowWithoutActivating);
    setFocusPolicy(Qt::NoFocus);
    setWindowTitle("toast");
    ui->frame->setGeometry(0, 0, width(), height());
    ui->label->setGeometry(0, 0, ui->frame->width(), ui->frame->height());
    connect(&m_timer, SIGNAL(timeout()), this, SLOT(slTimeout()));
    Global::LoadStyleSheet(this, ":/toast.qss");
}

Toast::~Toast()
{
    delete ui;
}

void Toast::setAnchorWidget(QWidget *anchor)
{
    m_pAnchor = anchor;
}

void Toast::showToast(const QString &strText, int iDurationMs)
{
    // The style sheet's font only reaches the label when it is polished; measure with that one.
    ui->label->ensurePolished();
    const int w = QFontMetrics(ui->label->font()).horizontalAdvance(strText) + 20;
    const QSize size(w, 34);
    setFixedSize(size);
    ui->frame->setFixedSize(size);
    ui->label->setFixedSize(size);
    ui->label->setText(strText);

    QRect area;
    if (parentWidget()) {
        area = QRect(QPoint(0, 0), parentWidget()->size());
    } else if (m_pAnchor) {
        area = m_pAnchor->geometry(); // read now: the window may have been dragged
    } else {
        QScreen *screen = QGuiApplication::screenAt(geometry().center());
        if (!screen)
            screen = QGuiApplication::primaryScreen();
        if (screen)
            area = screen->availableGeometry();
    }
    move(area.left() + (area.width() - width()) / 2, area.top() + (area.height() - height()) / 2);

    setWindowOpacity(1.0);
    repaint();
    show();
    raise();
    Accessibility::announceAlert(this);
    m_iDurationMs = iDurationMs;
    m_timer.start(100);
    m_elapsedTime.start();
}

void Toast::slTimeout()
{
    const qint64 remaining = qMax<qint64>(0, m_iDurationMs - m_elapsedTime.elapsed());
    setWindowOpacity(m_iDurationMs > 0 ? 1.0 * remaining / m_iDurationMs : 0.0);
    repaint();
    if (remaining == 0) {
        hide();
        m_timer.stop();
    }
}
