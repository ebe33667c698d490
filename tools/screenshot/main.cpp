// corvalen-screenshot OUT.png [x y w h]: saves the X screen, or a part of it, as a PNG.
#include <QGuiApplication>
#include <QPixmap>
#include <QScreen>

#include <cstdio>

int main(int argc, char *argv[])
{
    if (qEnvironmentVariableIsEmpty("QT_QPA_PLATFORM"))
        qputenv("QT_QPA_PLATFORM", "xcb");
    QGuiApplication app(argc, argv);
    if (argc != 2 && argc != 6) {
        std::fprintf(stderr, "usage: corvalen-screenshot OUT.png [x y w h]\n");
        return 2;
    }
    QScreen *screen = QGuiApplication::primaryScreen();
    if (!screen)
        return 1;
    QPixmap shot = argc == 6 ? screen->grabWindow(0, atoi(argv[2]), atoi(argv[3]), atoi(argv[4]),
                                                  atoi(argv[5]))
                             : screen->grabWindow(0);
    return shot.save(QString::fromLocal8Bit(argv[1]), "PNG") ? 0 : 1;
}
