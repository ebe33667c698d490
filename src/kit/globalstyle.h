// Style helpers shared by every window: style sheets, the "css" property, the shadowed
// backing frame and a wait that keeps the event loop running.
#pragma once

class QFrame;
class QIcon;
class QString;
class QWidget;

namespace Global {

bool LoadStyleSheet(QWidget *widget, const QString &strPath);
void SetWidgetProperty(QWidget *widget, const char *name, const QString &value);
QFrame *CreateShadowFrame(QWidget *host, QWidget *content, int radius, int shadowWidth);
void Delay(unsigned int ms);
QIcon LogoIcon();

} // namespace Global
