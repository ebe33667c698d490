#include "kit/mypushbutton.h"

#include "kit/styleswap.h"

MyPushButton::MyPushButton(QWidget *parent) : QPushButton(parent)
{
    // The hover swap and the style sheets' :hover rules need hover events.
    setAttribute(Qt::WA_Hover);
}

void MyPushButton::setNormalStyle(const QString &style)
{
    m_strNormalStyle = style;
    applyOwnStyleSheet(this, m_strNormalStyle);
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
    swapStyleOnHover(this, e, m_strNormalStyle, m_strHoverStyle);
    return QPushButton::event(e);
}
