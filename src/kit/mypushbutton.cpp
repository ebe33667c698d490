#include "kit/mypushbutton.h"

#include <QEvent>
#include <QStyle>

MyPushButton::MyPushButton(QWidget *parent) : QPushButton(parent)
{
    // The hover swap and the style sheets' :hover rules need hover events.
    setAttribute(Qt::WA_Hover);
}

void MyPushButton::setNormalStyle(const QString &style)
{
    m_strNormalStyle = style;
    applyStyle(m_strNormalStyle);
}

void MyPushButton::setHoverStyle(const QString &style)
{
    m_strHoverStyle = style;
}

void MyPushButton::setGeometry(const QRect &rect)
{
    QPushButton::setGeometry(rect);
    setIconSize(rect.size());
}

void MyPushButton::resize(int w, int h)
{
    QPushButton::resize(w, h);
    setIconSize(QSize(w, h));
}

bool MyPushButton::event(QEvent *e)
{
    if (e->type() == QEvent::HoverEnter)
        applyStyle(m_strHoverStyle);
    else if (e->type() == QEvent::HoverLeave)
        applyStyle(m_strNormalStyle);
    return QPushButton::event(e);
}

void MyPushButton::applyStyle(const QString &style)
{
    if (styleSheet() == style)
        return;
    setStyleSheet(style);
    if (QStyle *s = this->style()) {
        s->unpolish(this);
        s->polish(this);
    }
}
