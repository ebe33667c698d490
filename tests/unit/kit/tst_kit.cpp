// The kit every window shares, on a fake platform: the DPI rules, the start-up environment, the
// shadow against Qt's own, the toast, the message box as the keyboard and a screen reader find it.
#include "widgethelpers.h"

#include "app/startup.h"
#include "kit/accessibility.h"
#include "kit/dpiutil.h"
#include "kit/focusring.h"
#include "kit/globalstyle.h"
#include "kit/mymsgbox.h"
#include "kit/shadoweffect.h"
#include "kit/toast.h"

#include <private/qguiapplication_p.h>
#include <qpa/qplatformaccessibility.h>
#include <qpa/qplatformintegration.h>

using Monitors = std::vector<std::array<std::uint32_t, 3>>; // readable, flags, dpi (0: none)
Q_DECLARE_METATYPE(Monitors)
Q_DECLARE_METATYPE(std::optional<int>)

namespace {

QString describe(QAccessibleInterface *a)
{
    return QString("%1 \"%2\" \"%3\"")
        .arg(int(a->role()))
        .arg(a->text(QAccessible::Name), a->text(QAccessible::Description));
}

QStringList g_alerts; // what assistive technology was told to say at once
void record(QAccessibleEvent *event)
{
    if (event->type() == QAccessible::Alert)
        g_alerts << describe(event->accessibleInterface());
}

} // namespace

class tst_Kit : public QObject
{
    Q_OBJECT
    FakePlatform f;

private slots:
    void initTestCase()
    {
        FocusRing::installStyle();
        Accessibility::install();
        QAccessible::installUpdateHandler(record);
        // As when a screen reader starts listening.
        QGuiApplicationPrivate::platformIntegration()->accessibility()->setActive(true);
    }

    // No per-monitor answer: the system scale for both, below half scale 1. The last secondary
    // wins; flags other than exactly primary are secondary; an unreadable monitor is skipped;
    // one monitor keeps the secondary of the last enumeration (rows run in order).
    void dpi_data()
    {
        QTest::addColumn<Monitors>("monitors");
        QTest::addColumn<std::optional<int>>("systemDpi");
        QTest::addColumn<float>("primary");
        QTest::addColumn<float>("secondary");
        const auto row = [](const char *name, Monitors m, std::optional<int> system, float p,
                            float s) { QTest::newRow(name) << m << system << p << s; };
        row("system 144", {{1, 1, 0}}, 144, 1.5f, 1.5f);
        row("system 48: half", {{1, 1, 0}}, 48, 0.5f, 0.5f);
        row("system 47: below half", {{1, 1, 0}}, 47, 1, 1);
        row("no device context", {{1, 1, 0}}, std::nullopt, 1, 1);
        row("the last secondary", {{1, 1, 96}, {1, 0, 120}, {1, 0, 168}}, 96, 1, 1.75f);
        row("two, no per-monitor", {{1, 1, 0}, {1, 0, 0}}, 120, 1.25f, 1.25f);
        row("per-monitor wins", {{1, 1, 96}, {1, 0, 96}}, 144, 1, 1);
        row("flags 3 are secondary", {{1, 3, 192}, {1, 1, 120}}, 96, 1.25f, 2);
        row("unreadable skipped", {{0, 1, 192}, {1, 0, 144}, {1, 1, 120}}, 96, 1.25f, 1.5f);
        row("one keeps the last secondary", {{1, 1, 192}}, 96, 2, 1.5f);
        row("primary, then secondary", {{1, 1, 144}, {1, 0, 120}}, 96, 1.5f, 1.25f);
    }
    void dpi()
    {
        QFETCH(Monitors, monitors);
        QFETCH(std::optional<int>, systemDpi);
        QFETCH(float, primary);
        QFETCH(float, secondary);
        f.monitors.clear();
        f.monitorDpi.clear();
        for (const auto &[readable, flags, dpi] : monitors) {
            f.monitors.push_back({f.monitors.size() + 1, readable != 0, flags});
            if (dpi)
                f.monitorDpi[f.monitors.size()] = dpi;
        }
        f.systemDpiValue = systemDpi;
        float p = 0, s = 0;
        DPIUtil::getMonitorScales(&p, &s);
        QCOMPARE(std::make_pair(p, s), std::make_pair(primary, secondary));
    }

    void startupEnvironment()
    {
        f.monitors = {{1, true, 1}, {2, true, 0}};
        f.monitorDpi = {{1, 144}, {2, 120}};
        qputenv("QT_PLUGIN_PATH", "/somewhere/else");
        qputenv("QT_QPA_PLATFORM_PLUGIN_PATH", "/somewhere/else");
        Startup::initDpiEnvironment();
        // Per-monitor aware while reading the monitors, system aware afterwards.
        QCOMPARE(f.awarenessCalls, std::vector<int>({2, 1}));
        QCOMPARE(qgetenv("QT_SCREEN_SCALE_FACTORS"), QByteArray("1.5;1.25"));
        QCOMPARE(qgetenv("QT_PLUGIN_PATH") + qgetenv("QT_QPA_PLATFORM_PLUGIN_PATH"), QByteArray());
        QVERIFY(QCoreApplication::testAttribute(Qt::AA_UseHighDpiPixmaps));
        QCOMPARE(Startup::screenScaleFactors(1.0f / 3.0f, 1.0f), QByteArray("0.333333;1"));
        QVERIFY(Startup::isSelfTest(1) && !Startup::isSelfTest(2)); // exactly one: an engine's
    }

    // Against Qt's own effect, odd sizes, smaller than the tile, at 175 %; twice, the second
    // paint from the kept tile; then the tile follows its frame's look. Away from 100 % Qt's
    // result moves a step with the far edge.
    void shadow_data()
    {
        QTest::addColumn<QSize>("size");
        QTest::addColumn<qreal>("dpr");
        QTest::newRow("odd size") << QSize(131, 98) << qreal(1);
        QTest::newRow("smaller than the tile") << QSize(90, 61) << qreal(1);
        QTest::newRow("175 %") << QSize(401, 212) << qreal(1.75);
    }
    void shadow()
    {
        QFETCH(QSize, size);
        QFETCH(qreal, dpr);
        QWidget host; // whose style sheet names other frames
        host.setStyleSheet("QFrame#frame { background: #F0F0F0; } QLabel { color: red; }");
        host.resize(size);
        QFrame *frame = Global::CreateShadowFrame(&host, nullptr, 4, 8);
        host.setFixedSize(frame->size() + QSize(16, 16));
        auto *alone = new QFrame;
        alone->setStyleSheet(frame->styleSheet());
        alone->resize(frame->size());
        const QImage reference =
            static_cast<ShadowEffect *>(frame->graphicsEffect())->renderWithQtEffect(alone, dpr);
        QVERIFY(qAlpha(reference.pixel(reference.width() / 2, qRound(8 * dpr) - 2)) > 0);
        const auto drawn = [&] {
            QImage image(host.size() * dpr, QImage::Format_ARGB32_Premultiplied);
            image.setDevicePixelRatio(dpr);
            image.fill(Qt::transparent);
            host.render(&image, QPoint(), QRegion(), QWidget::DrawChildren);
            return image;
        };
        for (int pass = 0; pass < 2; ++pass)
            QCOMPARE(differingPixels(drawn(), reference, dpr == 1 ? 0 : 1), 0);
        frame->setStyleSheet("QFrame{background-color: #FF0000; border-radius:4px;}");
        QCOMPARE(QColor(drawn().pixel(reference.rect().center())).name(), QString("#ff0000"));
    }

    // A notice replacing one that is fading: at full opacity, for its own duration; each said
    // to assistive technology as an alert, by its text.
    void toast()
    {
        Toast toast;
        g_alerts.clear();
        toast.showToast("第一条", 300);
        QTRY_VERIFY(toast.windowOpacity() < 1.0);
        toast.showToast("第二条通知更长一些", 600);
        QElapsedTimer clock;
        clock.start();
        QVERIFY(toast.windowOpacity() == 1.0 && toast.focusPolicy() == Qt::NoFocus);
        QCOMPARE(child<QLabel>(&toast, "label")->text(), QString("第二条通知更长一些"));
        const QString alert = QString("%1 \"%2\" \"\"").arg(int(QAccessible::AlertMessage));
        QCOMPARE(g_alerts, QStringList({alert.arg("第一条"), alert.arg("第二条通知更长一些")}));
        QTRY_VERIFY_WITH_TIMEOUT(toast.isHidden(), 5000);
        QVERIFY(clock.elapsed() >= 450 && toast.windowOpacity() == 0.0);
    }

    // The keyboard goes in reading order (✕, then the buttons from the left) and starts on the
    // cancel, which Return presses as the close button would; the ring shows after Tab, never
    // after a click. A screen reader hears a dialog, its title, its question.
    void messageBox_data()
    {
        QTest::addColumn<bool>("cancel");
        QTest::addColumn<QStringList>("tabs"); // where the focus is first, then after each Tab
        QTest::addColumn<int>("returnAnswers");
        QTest::newRow("both buttons")
            << true << QStringList{"btnCancel", "btnOK", "btnClose", "btnCancel"} << 0;
        QTest::newRow("confirm only") << false << QStringList{"btnOK", "btnClose", "btnOK"} << 1;
    }
    void messageBox()
    {
        QFETCH(bool, cancel);
        QFETCH(QStringList, tabs);
        QFETCH(int, returnAnswers);
        MyMsgBox box;
        box.setButtonsVisible(cancel, true);
        QStringList focus;
        bool ringAfterOpen = true, ringAfterTab = false, ringAfterClick = true;
        QString dialog;
        QTimer::singleShot(100, &box, [&] {
            const auto ring = [&] { return box.findChild<FocusRing *>()->isVisible(); };
            ringAfterOpen = ring();
            focus << box.focusWidget()->objectName();
            for (int i = 1; i < tabs.size(); ++i) {
                QTest::keyClick(box.focusWidget(), Qt::Key_Tab);
                QCoreApplication::processEvents();
                focus << box.focusWidget()->objectName();
                ringAfterTab = ring();
            }
            QTest::mouseClick(&box, Qt::LeftButton, {}, QPoint(30, 30));
            QCoreApplication::processEvents();
            ringAfterClick = ring();
            dialog = describe(QAccessible::queryAccessibleInterface(&box)) + " " +
                     QAccessible::queryAccessibleInterface(child(&box, "btnClose"))
                         ->text(QAccessible::Name);
            QTest::keyClick(box.focusWidget(), Qt::Key_Return);
        });
        QCOMPARE(box.showMsg("确定退出安装吗？", QString()), returnAnswers);
        QCOMPARE(focus, tabs);
        QVERIFY(!ringAfterOpen && ringAfterTab && !ringAfterClick);
        QCOMPARE(dialog,
                 QString("%1 \"提示\" \"确定退出安装吗？\" 关闭").arg(int(QAccessible::Dialog)));
    }
};

QTEST_MAIN(tst_Kit)
#include "tst_kit.moc"
