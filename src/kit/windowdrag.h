#pragma once

#include <QPoint>

class QWidget;

// Moves a window by the global cursor's displacement since `ptLast` and records the new
// cursor position. Shared by every frameless window that can be dragged.
void followCursor(QWidget *window, QPoint &ptLast);
