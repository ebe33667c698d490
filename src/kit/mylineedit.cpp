#include "kit/mylineedit.h"

#include "kit/styleswap.h"

MyLineEdit::MyLineEdit(QWidget *parent) : QLineEdit(parent)
{
    // The hover swap and the style sheets' :hover rules need hover events.
    setAttribute(Qt::WA_Hover);
}

void MyLineEdit::setNormalStyle(const QString &style)
{
    m_strNormalStyle = style;
    applyOwnStyleSheet(this, m_strNormalStyle);
}

void MyLineEdit::setHoverStyle(const QString &style)
{
    m_strHoverStyle = style;
}

bool MyLineEdit::event(QEvent *e)
{
    swapStyleOnHover(this, e, m_strNormalStyle, m_strHoverStyle);
    return QLineEdit::event(e);
}
