#include "app/global.h"
#include "app/launchparams.h"
#include "app/startup.h"
#include "app/suite.h"
#include "kit/accessibility.h"
#include "kit/focusring.h"
#include "kit/fonts.h"
#include "loading/widget.h"

#include <QApplication>
#include <QDebug>

namespace {

// Runs before main: the environment must be set before the application object exists.
struct PreMain
{
    PreMain() { Startup::initDpiEnvironment(); }
} g_preMain;

} // namespace

int main(int argc, char *argv[])
{
    QApplication a(argc, argv);
    installFontSubstitutions();
    FocusRing::installStyle();
    Accessibility::install();

    if (os::platform().createNamedMutex(kInstanceMutexName) == os::MutexResult::AlreadyExists) {
        qDebug() << "one instance already exists, exit";
        return 0;
    }

    if (Startup::isSelfTest(argc)) {
        qDebug() << "self test: yes";
    } else {
        Global::SetSelfTest(false);
        qDebug() << "self test: no";
    }

    int index = 1;
    for (; index <= 6; ++index)
        LaunchParams::parseArgument(index, argc, argv);

    Widget w;
    w.startInstSvc(Global::GetInstallerProcId());

    for (; index <= LaunchParams::kArgumentCount; ++index)
        LaunchParams::parseArgument(index, argc, argv);

    w.init();
    return a.exec();
}
