// corvalen-screenshot OUT.png [x y w h]: saves the X screen, or a part of it, as a PNG.
// corvalen-screenshot --pixel x y: prints the colour of one pixel of the screen, as #rrggbb.
#include <QGuiApplication>
#include <QPixmap>
#include <QScreen>

#include <cstdio>

int main(int argc, char *argv[])
{
    if (qEnvironmentVariableIsEmpty("QT_QPA_PLATFORM"))
        qputenv("QT_QPA_PLATFORM", "xcb");
    QGuiApplication app(argc, argv);
    const bool pixel = argc == 4 && qstrcmp(argv[1], "--pixel") == 0;
    if (argc != 2 && argc != 6 && !pixel) {
        std::fprintf(stderr, "usage: corvalen-screenshot OUT.png [x y w h] | --pixel x y\n");
        return 2;
    }
    QScreen *screen = QGuiApplication::primaryScreen();
    if (!screen)
        return 1;
    if (pixel) {
        const QImage shot = screen->grabWindow(0, atoi(argv[2]), atoi(argv[3]), 1, 1).toImage();
        std::printf("%s\n", qPrintable(shot.pixelColor(0, 0).name()));
        return shot.isNull() ? 1 : 0;
    }
    QPixmap shot = argc == 6 ? screen->grabWindow(0, atoi(argv[2]), atoi(argv[3]), atoi(argv[4]),
                                                  atoi(argv[5]))
                             : screen->grabWindow(0);
    return shot.save(QString::fromLocal8Bit(argv[1]), "PNG") ? 0 : 1;
}
