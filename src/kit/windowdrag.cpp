#include "kit/windowdrag.h"

#include <QCursor>
#include <QWidget>

void followCursor(QWidget *window, QPoint &ptLast)
{
    // The global cursor, not the event's position: the window moves under the event.
    const QPoint pos = QCursor::pos();
    window->move(window->x() + pos.x() - ptLast.x(), window->y() + pos.y() - ptLast.y());
    ptLast = pos;
}
