#include "kit/styleswap.h"

#include <QEvent>
#include <QStyle>
#include <QWidget>

void applyOwnStyleSheet(QWidget *widget, const QString &style)
{
    if (widget->styleSheet() == style)
        return;
    widget->setStyleSheet(style);
    if (QStyle *s = widget->style()) {
        s->unpolish(widget);
        s->polish(widget);
    }
}

void swapStyleOnHover(QWidget *widget, const QEvent *event, const QString &normal,
                      const QString &hover)
{
    if (event->type() == QEvent::HoverEnter)
        applyOwnStyleSheet(widget, hover);
    else if (event->type() == QEvent::HoverLeave)
        applyOwnStyleSheet(widget, normal);
}
