// What a still picture of the kit cannot show: the shadow against Qt's own at every scale,
// the vector image against its bitmap, the toast's placement and life.
#include <QtTest>

#include "kit/fonts.h"
#include "kit/globalstyle.h"
#include "kit/shadoweffect.h"
#include "kit/toast.h"
#include "uitest.h"

#include <QFrame>
#include <QPainter>
#include <QSvgRenderer>

namespace {

// The largest difference of any channel of any pixel.
int worstDifference(const QImage &a, const QImage &b)
{
    int worst = 0;
    for (int y = 0; y < a.height(); ++y)
        for (int x = 0; x < a.width(); ++x) {
            const QRgb p = a.pixel(x, y), q = b.pixel(x, y);
            worst = std::max({worst, qAbs(qAlpha(p) - qAlpha(q)), qAbs(qRed(p) - qRed(q)),
                              qAbs(qGreen(p) - qGreen(q)), qAbs(qBlue(p) - qBlue(q))});
        }
    return worst;
}

} // namespace

class tst_Kit : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase() { installFontSubstitutions(); }
    void completedVectorDrawsLikeItsBitmap()
    {
        const QImage bitmap =
            QImage(":/images/completed@2x.png").convertToFormat(QImage::Format_ARGB32);
        QImage drawn(bitmap.size(), QImage::Format_ARGB32);
        drawn.fill(Qt::transparent);
        QPainter painter(&drawn);
        QSvgRenderer(QString(":/images/completed.svg")).render(&painter);
        painter.end();
        QCOMPARE(qAlpha(drawn.pixel(26, 38)), 0); // inside the tick: cut out of the disc
        // Edges rasterise differently; a plain disc or a wrong colour is far off.
        int differing = 0;
        for (int y = 0; y < drawn.height(); ++y)
            for (int x = 0; x < drawn.width(); ++x)
                differing += qAbs(qAlpha(drawn.pixel(x, y)) - qAlpha(bitmap.pixel(x, y))) > 64 ||
                             qAbs(qBlue(drawn.pixel(x, y)) - qBlue(bitmap.pixel(x, y))) > 64;
        QVERIFY2(differing < drawn.width() * drawn.height() / 100,
                 qPrintable(QString::number(differing)));
    }

    void shadowMatchesQtEffect_data()
    {
        QTest::addColumn<QSize>("frameSize");
        QTest::addColumn<qreal>("dpr");
        QTest::newRow("odd by odd") << QSize(131, 97) << qreal(1);
        QTest::newRow("smaller than the tile") << QSize(90, 60) << qreal(1);
        QTest::newRow("odd at 175 %") << QSize(401, 211) << qreal(1.75);
    }

    void shadowMatchesQtEffect()
    {
        QFETCH(QSize, frameSize);
        QFETCH(qreal, dpr);
        const QString style("QFrame{background-color: #FFFFFF; border-radius:4px;}");
        // A frame inside a window whose style sheet names other frames.
        QWidget host;
        host.setStyleSheet("QFrame#frame { background: #F0F0F0; } QLabel { color: red; }");
        host.resize(frameSize + QSize(16, 16));
        auto *frame = new QFrame(&host);
        frame->setStyleSheet(style);
        frame->setGeometry(QRect(QPoint(8, 8), frameSize));
        auto *shadow = new ShadowEffect(frame, &host);
        shadow->setOffset(0, 0);
        shadow->setColor(QColor(0, 0, 0, 42));
        shadow->setBlurRadius(8);
        frame->setGraphicsEffect(shadow);
        auto *alone = new QFrame;
        alone->setStyleSheet(style);
        alone->resize(frameSize);
        const QImage reference = shadow->renderWithQtEffect(alone, dpr);
        QVERIFY(qAlpha(reference.pixel(reference.width() / 2, qRound(8 * dpr) - 2)) >
                0); // not blank
        // Twice: the second paint comes from the kept tile.
        for (int pass = 0; pass < 2; ++pass) {
            QImage drawn(host.size() * dpr, QImage::Format_ARGB32_Premultiplied);
            drawn.setDevicePixelRatio(dpr);
            drawn.fill(Qt::transparent);
            host.render(&drawn, QPoint(), QRegion(), QWidget::DrawChildren);
            QCOMPARE(drawn.size(), reference.size());
            // Away from 100 % Qt's own result moves by one step with the frame's far edge.
            QVERIFY(worstDifference(drawn, reference) <= (qFuzzyCompare(dpr, 1) ? 0 : 1));
        }
    }

    void shadowFollowsItsFrame()
    {
        QWidget host;
        host.resize(460, 330);
        QFrame *frame = Global::CreateShadowFrame(&host, nullptr, 4, 8);
        frame->setStyleSheet("QFrame{background-color: #FF0000; border-radius:4px;}");
        QImage drawn(host.size(), QImage::Format_ARGB32_Premultiplied);
        drawn.fill(Qt::transparent);
        host.render(&drawn, QPoint(), QRegion(), QWidget::DrawChildren);
        QCOMPARE(QColor(drawn.pixel(230, 165)).name(),
                 QString("#ff0000")); // the frame as it is now
    }

    void toastCentresOnAnchor_data()
    {
        QTest::addColumn<QString>("text");
        QTest::addColumn<QRect>("anchor");
        QTest::newRow("short") << "磁盘空间不足。" << QRect(100, 100, 476, 346);
        QTest::newRow("long, dragged window")
            << "发生意外。您选择的目录[D:\\a\\very\\long\\path\\Tandemo]不存在，请重试。"
            << QRect(-200, 600, 476, 426);
        QTest::newRow("empty, odd sizes") << "" << QRect(0, 0, 101, 51);
    }

    void toastCentresOnAnchor()
    {
        QFETCH(QString, text);
        QFETCH(QRect, anchor);
        QWidget window;
        Toast toast;
        toast.setAnchorWidget(&window);
        window.setGeometry(anchor); // read at show time, not when anchored
        toast.showToast(text, 3000);
        const int w = QFontMetrics(child(&toast, "label")->font()).horizontalAdvance(text) + 20;
        QCOMPARE(toast.geometry(), QRect(anchor.left() + (anchor.width() - w) / 2,
                                         anchor.top() + (anchor.height() - 34) / 2, w, 34));
        QCOMPARE(toast.focusPolicy(), Qt::NoFocus);
    }

    void toastFadesAndIsReplaced()
    {
        Toast toast;
        toast.showToast("第一条", 300);
        QTRY_VERIFY(toast.windowOpacity() < 1.0);
        toast.showToast("第二条通知更长一些", 600);
        QCOMPARE(toast.windowOpacity(), 1.0);
        QCOMPARE(child<QLabel>(&toast, "label")->text(), QString("第二条通知更长一些"));
        qreal last = 1.0;
        bool neverRose = true;
        QElapsedTimer clock;
        clock.start();
        while (toast.isVisible() && clock.elapsed() < 5000) {
            QTest::qWait(20);
            neverRose = neverRose && toast.windowOpacity() <= last;
            last = toast.windowOpacity();
        }
        QVERIFY(neverRose);
        QVERIFY(clock.elapsed() >= 450); // the second notice's own duration, not the first's
        QVERIFY(toast.isHidden());
        QCOMPARE(toast.windowOpacity(), 0.0);
    }
};

QTEST_MAIN(tst_Kit)
#include "tst_kit.moc"
