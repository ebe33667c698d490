#include "kit/focusring.h"

#include <QApplication>
#include <QKeyEvent>
#include <QPainter>
#include <QProxyStyle>
#include <QTimer>

namespace {

constexpr int kGap = 3;               // between the control and the ring
constexpr int kWidth = 2;             // of the ring
const QColor kBlue(0x59, 0x98, 0xFF); // the design's primary colour

class NoFocusFrame final : public QProxyStyle
{
public:
    using QProxyStyle::QProxyStyle;
    void drawPrimitive(PrimitiveElement element, const QStyleOption *option, QPainter *painter,
                       const QWidget *widget) const override
    {
        if (element != PE_FrameFocusRect)
            QProxyStyle::drawPrimitive(element, option, painter, widget);
    }
};

bool isNavigationKey(int key)
{
    switch (key) {
    case Qt::Key_Tab:
    case Qt::Key_Backtab:
    case Qt::Key_Left:
    case Qt::Key_Right:
    case Qt::Key_Up:
    case Qt::Key_Down:
        return true;
    default:
        return false;
    }
}

} // namespace

FocusRing::FocusRing(QWidget *window, QWidget *surface) : QWidget(surface), m_pWindow(window)
{
    setAttribute(Qt::WA_TransparentForMouseEvents);
    setFocusPolicy(Qt::NoFocus);
    hide();
    qApp->installEventFilter(this);
}

FocusRing::~FocusRing()
{
    qApp->removeEventFilter(this);
}

void FocusRing::addCompanion(QWidget *control, QWidget *companion)
{
    m_companions.insert(control, companion);
}

void FocusRing::installStyle()
{
    QApplication::setStyle(new NoFocusFrame(QApplication::style()->objectName()));
}

bool FocusRing::eventFilter(QObject *watched, QEvent *event)
{
    const auto *widget = qobject_cast<QWidget *>(watched);
    if (!widget || widget->window() != m_pWindow)
        return false;
    switch (event->type()) {
    case QEvent::KeyPress:
        if (isNavigationKey(static_cast<QKeyEvent *>(event)->key()))
            m_bKeyboard = true;
        break;
    case QEvent::MouseButtonPress:
        m_bKeyboard = false;
        break;
    case QEvent::FocusIn:
    case QEvent::Show:
    case QEvent::Hide:
        break;
    default:
        return false;
    }
    // After the event has done its work: the focus moved, a page changed.
    QTimer::singleShot(0, this, &FocusRing::follow);
    return false;
}

void FocusRing::follow()
{
    QWidget *focused = m_pWindow->focusWidget();
    const QWidget *surface = parentWidget();
    if (!m_bKeyboard || !focused || !focused->isVisible() || !surface->isAncestorOf(focused) ||
        focused == this) {
        hide();
        return;
    }
    QRect around(focused->mapTo(surface, QPoint(0, 0)), focused->size());
    if (QWidget *companion = m_companions.value(focused); companion && companion->isVisible())
        around |= QRect(companion->mapTo(surface, QPoint(0, 0)), companion->size());
    setGeometry(around.adjusted(-kGap - kWidth, -kGap - kWidth, kGap + kWidth, kGap + kWidth));
    raise();
    show();
    update();
}

void FocusRing::paintEvent(QPaintEvent *)
{
    QPainter painter(this);
    painter.setRenderHint(QPainter::Antialiasing);
    painter.setPen(QPen(kBlue, kWidth));
    const qreal inset = kWidth / 2.0;
    painter.drawRoundedRect(QRectF(rect()).adjusted(inset, inset, -inset, -inset), 6, 6);
}
