// What the front end does before and right after the application object exists.
#pragma once

#include <QByteArray>
#include <QString>

namespace Startup {

// "primary;secondary" as QT_SCREEN_SCALE_FACTORS takes it, e.g. "1.5;1".
QByteArray screenScaleFactors(float primary, float secondary);

// Started without arguments: no engine, the program simulates one.
bool isSelfTest(int argc);

// The whole set-up that must run before QApplication: DPI awareness and scale factors, plugin
// paths, and off Windows the platform plugin choices.
void initDpiEnvironment();

} // namespace Startup
