#include "kit/twostatebutton.h"

#include <QEvent>

TwoStateButton::TwoStateButton(bool bInitial, QWidget *parent)
    : QPushButton(parent), m_bState(bInitial)
{
    setAttribute(Qt::WA_Hover);
    connect(this, &QPushButton::clicked, this, [this] { setState(!m_bState); });
}

void TwoStateButton::setState(bool bState)
{
    const bool bChanged = bState != m_bState;
    m_bState = bState;
    announce(m_bState, bChanged);
}

void TwoStateButton::setGeometry(const QRect &rect)
{
    QPushButton::setGeometry(rect);
    setIconSize(rect.size());
}

void TwoStateButton::resize(int w, int h)
{
    QPushButton::resize(w, h);
    setIconSize(QSize(w, h));
}

bool TwoStateButton::event(QEvent *e)
{
    if (e->type() == QEvent::HoverEnter || e->type() == QEvent::HoverLeave)
        setState(m_bState);
    return QPushButton::event(e);
}
