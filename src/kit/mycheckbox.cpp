#include "kit/mycheckbox.h"

#include "kit/accessibility.h"

#include <QEvent>

MyCheckBox::MyCheckBox(QWidget *parent) : QPushButton(parent)
{
    setAttribute(Qt::WA_Hover);
    connect(this, &QPushButton::clicked, this, [this] { setCheckState(!m_bChecked); });
}

void MyCheckBox::setCheckState(bool bChecked)
{
    const bool bChanged = bChecked != m_bChecked;
    m_bChecked = bChecked;
    emit sgClicked(m_bChecked);
    if (bChanged)
        Accessibility::announceChecked(this);
}

void MyCheckBox::setGeometry(const QRect &rect)
{
    QPushButton::setGeometry(rect);
    setIconSize(rect.size());
}

void MyCheckBox::resize(int w, int h)
{
    QPushButton::resize(w, h);
    setIconSize(QSize(w, h));
}

bool MyCheckBox::event(QEvent *e)
{
    // Re-announce on hover so the owner re-polishes and the :hover image follows.
    if (e->type() == QEvent::HoverEnter || e->type() == QEvent::HoverLeave)
        setCheckState(m_bChecked);
    return QPushButton::event(e);
}
