#include "kit/myfoldbutton.h"

#include <QEvent>

MyFoldButton::MyFoldButton(QWidget *parent) : QPushButton(parent)
{
    setAttribute(Qt::WA_Hover);
    connect(this, &QPushButton::clicked, this, [this] { setFoldState(!m_bFolded); });
}

void MyFoldButton::setFoldState(bool bFolded)
{
    m_bFolded = bFolded;
    emit sgFoldState(m_bFolded);
}

void MyFoldButton::setGeometry(const QRect &rect)
{
    QPushButton::setGeometry(rect);
    setIconSize(rect.size());
}

void MyFoldButton::resize(int w, int h)
{
    QPushButton::resize(w, h);
    setIconSize(QSize(w, h));
}

bool MyFoldButton::event(QEvent *e)
{
    // Re-announce on hover so the owner re-polishes and the :hover image follows.
    if (e->type() == QEvent::HoverEnter || e->type() == QEvent::HoverLeave)
        setFoldState(m_bFolded);
    return QPushButton::event(e);
}
