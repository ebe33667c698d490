// What assistive technology is told of the controls Qt does not know for what they are: the
// agreement box is a check box with its state, the agreement buttons are links, two labels are
// a progress bar with its value, the toast is an alert. Qt's accessibility bridge carries it to
// UI Automation on Windows and AT-SPI on Linux.
#pragma once

class QWidget;

namespace Accessibility {

// Registers the interfaces; before the first window is shown.
void install();

// A plain button taken for a link, or a label for a progress bar (0 to 100).
void markAsLink(QWidget *button);
void markAsProgressBar(QWidget *label);
// A button that shows or hides part of the window: expandable, and whether it is expanded.
void setExpanded(QWidget *button, bool bExpanded);

// What changed, said to assistive technology.
void announceValue(QWidget *progressBar, int iValue);
void announceChecked(QWidget *checkBox);
void announceAlert(QWidget *alert);

} // namespace Accessibility
