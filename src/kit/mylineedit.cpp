#include "kit/mylineedit.h"

#include <QEvent>
#include <QStyle>

MyLineEdit::MyLineEdit(QWidget *parent) : QLineEdit(parent)
{
    // The hover swap and the style sheets' :hover rules need hover events.
    setAttribute(Qt::WA_Hover);
}

void MyLineEdit::setNormalStyle(const QString &style)
{
    m_strNormalStyle = style;
    applyStyle(m_strNormalStyle);
}

void MyLineEdit::setHoverStyle(const QString &style)
{
    m_strHoverStyle = style;
}

bool MyLineEdit::event(QEvent *e)
{
    if (e->type() == QEvent::HoverEnter)
        applyStyle(m_strHoverStyle);
    else if (e->type() == QEvent::HoverLeave)
        applyStyle(m_strNormalStyle);
    return QLineEdit::event(e);
}

void MyLineEdit::applyStyle(const QString &style)
{
    if (styleSheet() == style)
        return;
    setStyleSheet(style);
    if (QStyle *s = this->style()) {
        s->unpolish(this);
        s->polish(this);
    }
}
