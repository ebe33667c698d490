#include <QtTest>

#include "kit/fonts.h"
#include "kit/toast.h"

#include <QLabel>

class tst_Toast : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase() { installFontSubstitutions(); }
    void fitsTextAndCentresOnAnchor_data();
    void fitsTextAndCentresOnAnchor();
    void secondNoticeReplacesFirst();
    void fadesAndHides();
    void neverTakesFocus();
    void look();
};

void tst_Toast::fitsTextAndCentresOnAnchor_data()
{
    QTest::addColumn<QString>("text");
    QTest::addColumn<QRect>("anchor");
    QTest::newRow("short") << "磁盘空间不足。请先清理磁盘，或选择另一个磁盘。"
                           << QRect(100, 100, 476, 346);
    QTest::newRow("long, dragged window")
        << "发生意外。您选择的目录[D:\\a\\very\\long\\path\\that\\goes\\on\\Tandemo]"
           "不存在，请重试。"
        << QRect(-200, 600, 476, 426);
    QTest::newRow("empty") << "" << QRect(0, 0, 101, 51);
}

void tst_Toast::fitsTextAndCentresOnAnchor()
{
    QFETCH(QString, text);
    QFETCH(QRect, anchor);
    QWidget window;
    window.setGeometry(anchor);
    Toast toast;
    toast.setAnchorWidget(&window);
    window.move(anchor.topLeft()); // read at show time, not when anchored
    toast.showToast(text, 3000);
    auto *label = toast.findChild<QLabel *>("label");
    const int w = QFontMetrics(label->font()).horizontalAdvance(text) + 20;
    QCOMPARE(toast.size(), QSize(w, 34));
    QCOMPARE(label->size(), QSize(w, 34));
    QCOMPARE(label->text(), text);
    const QRect r = window.geometry();
    QCOMPARE(toast.pos(), QPoint(r.left() + (r.width() - w) / 2, r.top() + (r.height() - 34) / 2));
    QVERIFY(toast.isVisible());
    QCOMPARE(toast.windowOpacity(), 1.0);
}

void tst_Toast::secondNoticeReplacesFirst()
{
    QWidget window;
    window.setGeometry(0, 0, 476, 346);
    Toast toast;
    toast.setAnchorWidget(&window);
    toast.showToast("第一条", 300);
    QTRY_VERIFY(toast.windowOpacity() < 1.0);
    toast.showToast("第二条通知更长一些", 3000);
    QCOMPARE(toast.windowOpacity(), 1.0);
    QCOMPARE(toast.findChild<QLabel *>("label")->text(), QString("第二条通知更长一些"));
    QTest::qWait(600); // past the first notice's duration: the second is still up
    QVERIFY(toast.isVisible());
    QVERIFY(toast.windowOpacity() > 0.5);
}

void tst_Toast::fadesAndHides()
{
    Toast toast;
    toast.showToast("请选阅读并同意《服务协议》和《隐私政策》", 400);
    QVERIFY(toast.isVisible());
    qreal last = toast.windowOpacity();
    bool neverRose = true;
    QTimer sampler;
    connect(&sampler, &QTimer::timeout, [&] {
        neverRose = neverRose && toast.windowOpacity() <= last;
        last = toast.windowOpacity();
    });
    sampler.start(20);
    QTRY_VERIFY(toast.isHidden());
    QVERIFY(neverRose);
    QCOMPARE(toast.windowOpacity(), 0.0);
}

void tst_Toast::neverTakesFocus()
{
    Toast toast;
    QCOMPARE(toast.focusPolicy(), Qt::NoFocus);
    QVERIFY(toast.windowFlags() & Qt::Tool);
    QVERIFY(toast.windowFlags() & Qt::FramelessWindowHint);
    QVERIFY(toast.testAttribute(Qt::WA_TranslucentBackground));
    QCOMPARE(toast.windowTitle(), QString("toast"));
}

void tst_Toast::look()
{
    Toast toast;
    toast.showToast("磁盘空间不足。请先清理磁盘，或选择另一个磁盘。", 3000);
    QVERIFY(QTest::qWaitForWindowExposed(&toast));
    const QImage image = toast.grab().toImage();
    // A black strip at 80 % with white text across its middle row.
    const QRgb edge = image.pixel(4, 17);
    QCOMPARE(qRed(edge) + qGreen(edge) + qBlue(edge), 0);
    QVERIFY(qAbs(qAlpha(edge) - 204) <= 2);
    int white = 0;
    for (int x = 10; x < image.width() - 10; ++x) {
        const QRgb p = image.pixel(x, 17);
        if (qRed(p) > 200 && qGreen(p) > 200 && qBlue(p) > 200)
            ++white;
    }
    QVERIFY(white > 10);
}

QTEST_MAIN(tst_Toast)
#include "tst_toast.moc"
