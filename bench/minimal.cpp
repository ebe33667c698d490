// The yardstick: the smallest Qt Widgets program that shows what the loading window shows,
// with the same Qt environment and font substitution as the front end.
#include <QApplication>
#include <QFont>
#include <QLabel>
#include <QWidget>

int main(int argc, char *argv[])
{
    qputenv("QT_SCREEN_SCALE_FACTORS", "1;1");
    qputenv("QT_QPA_PLATFORM_PLUGIN_PATH", "");
    qputenv("QT_PLUGIN_PATH", "");
#ifndef Q_OS_WIN
    if (qEnvironmentVariableIsEmpty("QT_QPA_PLATFORM"))
        qputenv("QT_QPA_PLATFORM", "xcb");
    if (qEnvironmentVariableIsEmpty("QT_XCB_GL_INTEGRATION"))
        qputenv("QT_XCB_GL_INTEGRATION", "none");
#endif
    QCoreApplication::setAttribute(Qt::AA_UseHighDpiPixmaps, true);
    QApplication app(argc, argv);
#ifndef Q_OS_WIN
    QFont::insertSubstitution("Microsoft YaHei", "WenQuanYi Micro Hei");
#endif
    QWidget window(nullptr, Qt::FramelessWindowHint);
    window.setAttribute(Qt::WA_TranslucentBackground);
    window.resize(400, 120);
    QLabel label(QString::fromUtf8("请等待，正在加载应用安装程序…"), &window);
    label.setGeometry(104, 36, 261, 20);
    label.setStyleSheet("font-family: Microsoft YaHei;\nfont-size: 14px;\ncolor: #1C1D20;");
    window.show();
    return app.exec();
}
