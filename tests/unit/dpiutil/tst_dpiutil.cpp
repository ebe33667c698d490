#include <QtTest>

#include "app/startup.h"
#include "fakeplatform.h"
#include "kit/dpiutil.h"

Q_DECLARE_METATYPE(std::vector<os::MonitorInfo>)
using DpiMap = std::map<os::MonitorHandle, std::uint32_t>;
Q_DECLARE_METATYPE(DpiMap)
Q_DECLARE_METATYPE(std::optional<int>)

class tst_DPIUtil : public QObject
{
    Q_OBJECT

private slots:
    void systemScale_data();
    void systemScale();
    void monitorScales_data();
    void monitorScales();
    void scalesAreNeverReset();
    void scaleFactorText_data();
    void scaleFactorText();
    void environmentBeforeApplication();
};

void tst_DPIUtil::systemScale_data()
{
    QTest::addColumn<std::optional<int>>("dpi");
    QTest::addColumn<float>("scale");
    QTest::newRow("96") << std::optional<int>(96) << 1.0f;
    QTest::newRow("120") << std::optional<int>(120) << 1.25f;
    QTest::newRow("144") << std::optional<int>(144) << 1.5f;
    QTest::newRow("48 is the floor itself") << std::optional<int>(48) << 0.5f;
    QTest::newRow("47 is replaced") << std::optional<int>(47) << 1.0f;
    QTest::newRow("0 is replaced") << std::optional<int>(0) << 1.0f;
    QTest::newRow("no device context") << std::optional<int>() << 1.0f;
}

void tst_DPIUtil::systemScale()
{
    QFETCH(std::optional<int>, dpi);
    QFETCH(float, scale);
    FakePlatform fake;
    fake.systemDpiValue = dpi;
    FakePlatformScope scope(fake);
    QCOMPARE(DPIUtil::getSystemScale(), scale);
}

void tst_DPIUtil::monitorScales_data()
{
    QTest::addColumn<std::vector<os::MonitorInfo>>("monitors");
    QTest::addColumn<bool>("perMonitor");
    QTest::addColumn<DpiMap>("dpi");
    QTest::addColumn<int>("systemDpi");
    QTest::addColumn<float>("primary");
    QTest::addColumn<float>("secondary");

    using M = std::vector<os::MonitorInfo>;
    QTest::newRow("one monitor at 144")
        << M{{1, true, 1}} << true << DpiMap{{1, 144}} << 96 << 1.5f << 1.0f;
    QTest::newRow("last secondary wins")
        << M{{1, true, 1}, {2, true, 0}, {3, true, 0}} << true
        << DpiMap{{1, 96}, {2, 120}, {3, 168}} << 96 << 1.0f << 1.75f;
    QTest::newRow("no per-monitor call: system scale for both")
        << M{{1, true, 1}, {2, true, 0}} << false << DpiMap{} << 120 << 1.25f << 1.25f;
    QTest::newRow("failing per-monitor call counts as 96")
        << M{{1, true, 1}} << true << DpiMap{} << 144 << 1.0f << 1.0f;
    QTest::newRow("flags other than exactly primary are secondary")
        << M{{1, true, 3}, {2, true, 1}} << true << DpiMap{{1, 192}, {2, 120}} << 96 << 1.25f
        << 2.0f;
    QTest::newRow("unreadable monitor is skipped")
        << M{{1, false, 1}, {2, true, 0}} << true << DpiMap{{1, 192}, {2, 144}} << 96 << 1.0f
        << 1.5f;
}

void tst_DPIUtil::monitorScales()
{
    QFETCH(std::vector<os::MonitorInfo>, monitors);
    QFETCH(bool, perMonitor);
    QFETCH(DpiMap, dpi);
    QFETCH(int, systemDpi);
    QFETCH(float, primary);
    QFETCH(float, secondary);

    // The stored scales persist across calls: start every row from a known state.
    {
        FakePlatform reset;
        reset.monitors = {{1, true, 1}, {2, true, 0}};
        reset.perMonitorDpiPresent = true;
        FakePlatformScope scope(reset);
        float p = 0, s = 0;
        DPIUtil::getMonitorScales(&p, &s);
    }
    FakePlatform fake;
    fake.monitors = monitors;
    fake.perMonitorDpiPresent = perMonitor;
    fake.monitorDpi = dpi;
    fake.systemDpiValue = systemDpi;
    FakePlatformScope scope(fake);
    float p = 0, s = 0;
    DPIUtil::getMonitorScales(&p, &s);
    QCOMPARE(p, primary);
    QCOMPARE(s, secondary);
}

void tst_DPIUtil::scalesAreNeverReset()
{
    {
        FakePlatform fake;
        fake.monitors = {{1, true, 1}, {2, true, 0}};
        fake.perMonitorDpiPresent = true;
        fake.monitorDpi = {{1, 96}, {2, 192}};
        FakePlatformScope scope(fake);
        float p = 0, s = 0;
        DPIUtil::getMonitorScales(&p, &s);
        QCOMPARE(s, 2.0f);
    }
    FakePlatform single;
    single.monitors = {{1, true, 1}};
    single.perMonitorDpiPresent = true;
    single.monitorDpi = {{1, 144}};
    FakePlatformScope scope(single);
    float p = 0, s = 0;
    DPIUtil::getMonitorScales(&p, &s);
    QCOMPARE(p, 1.5f);
    QCOMPARE(s, 2.0f); // left over from the earlier enumeration
}

void tst_DPIUtil::scaleFactorText_data()
{
    QTest::addColumn<float>("primary");
    QTest::addColumn<float>("secondary");
    QTest::addColumn<QByteArray>("text");
    QTest::newRow("single 96 dpi monitor") << 1.0f << 1.0f << QByteArray("1;1");
    QTest::newRow("primary 150 %") << 1.5f << 1.0f << QByteArray("1.5;1");
    QTest::newRow("secondary 175 %") << 1.0f << 1.75f << QByteArray("1;1.75");
    QTest::newRow("six significant digits") << 1.0f / 3.0f << 1.25f << QByteArray("0.333333;1.25");
}

void tst_DPIUtil::scaleFactorText()
{
    QFETCH(float, primary);
    QFETCH(float, secondary);
    QFETCH(QByteArray, text);
    QCOMPARE(Startup::screenScaleFactors(primary, secondary), text);
}

void tst_DPIUtil::environmentBeforeApplication()
{
    FakePlatform fake;
    fake.awarenessResult = 0;
    fake.monitors = {{1, true, 1}};
    fake.perMonitorDpiPresent = true;
    fake.monitorDpi = {{1, 144}};
    FakePlatformScope scope(fake);
    qputenv("QT_PLUGIN_PATH", "/somewhere/else");
    qputenv("QT_QPA_PLATFORM_PLUGIN_PATH", "/somewhere/else");
    Startup::initDpiEnvironment();
    // Per-monitor aware while reading the monitors, system aware afterwards.
    QCOMPARE(fake.awarenessCalls, std::vector<int>({2, 1}));
    QCOMPARE(qgetenv("QT_SCREEN_SCALE_FACTORS").split(';').first(), QByteArray("1.5"));
    QVERIFY(qgetenv("QT_PLUGIN_PATH").isEmpty());
    QVERIFY(qgetenv("QT_QPA_PLATFORM_PLUGIN_PATH").isEmpty());
    QVERIFY(QCoreApplication::testAttribute(Qt::AA_UseHighDpiPixmaps));
}

QTEST_GUILESS_MAIN(tst_DPIUtil)
#include "tst_dpiutil.moc"
