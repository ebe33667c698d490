#pragma once

class QEvent;
class QString;
class QWidget;

// Sets `style` as the widget's own style sheet and re-polishes it, unless it is already there.
void applyOwnStyleSheet(QWidget *widget, const QString &style);

// The normal/hover swap of a style-swapping widget: on hover enter the hover text, on hover
// leave the normal one; other events change nothing.
void swapStyleOnHover(QWidget *widget, const QEvent *event, const QString &normal,
                      const QString &hover);
