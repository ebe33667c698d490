#include <QtTest>

#include "app/global.h"
#include "app/launchparams.h"
#include "logcapture.h"

#include <vector>

namespace {

// Parses all eight positions of `args` (argv[0] included) and returns the log lines.
QStringList parseAll(std::vector<QByteArray> args)
{
    std::vector<char *> argv;
    for (QByteArray &a : args)
        argv.push_back(a.data());
    argv.push_back(nullptr);
    LogCapture log;
    for (int i = 1; i <= LaunchParams::kArgumentCount; ++i)
        LaunchParams::parseArgument(i, static_cast<int>(args.size()), argv.data());
    return log.lines;
}

} // namespace

class tst_LaunchParams : public QObject
{
    Q_OBJECT

private slots:
    void toInt32_data();
    void toInt32();
    void defaults();
    void engineCommandLine();
    void sevenArguments();
    void handleIsSignExtended();
};

void tst_LaunchParams::toInt32_data()
{
    QTest::addColumn<QByteArray>("text");
    QTest::addColumn<int>("expected");
    QTest::newRow("decimal") << QByteArray("4194312") << 4194312;
    QTest::newRow("negative") << QByteArray("-1") << -1;
    QTest::newRow("hexadecimal is not decimal") << QByteArray("0x10") << 0;
    QTest::newRow("just above int32") << QByteArray("2147483648") << 0;
    QTest::newRow("int32 max") << QByteArray("2147483647") << 2147483647;
    QTest::newRow("int32 min") << QByteArray("-2147483648") << int(-2147483647 - 1);
    QTest::newRow("word") << QByteArray("true") << 0;
    QTest::newRow("empty") << QByteArray("") << 0;
    QTest::newRow("trailing garbage") << QByteArray("12abc") << 0;
    QTest::newRow("surrounding spaces") << QByteArray(" 12 ") << 12;
    QTest::newRow("leading zeros") << QByteArray("007") << 7;
}

void tst_LaunchParams::toInt32()
{
    QFETCH(QByteArray, text);
    QFETCH(int, expected);
    QCOMPARE(LaunchParams::toInt32(text.constData()), expected);
}

void tst_LaunchParams::defaults()
{
    const QStringList log = parseAll({"CorvalenSetup"});
    QCOMPARE(Global::GetIPCWnd(), os::WindowHandle(0));
    QCOMPARE(Global::GetDisableChoosePath(), false);
    QCOMPARE(Global::GetWithoutAgreement(), false);
    QCOMPARE(Global::GetVersionNew(), QString("3.0.0.5"));
    QCOMPARE(Global::GetVersionOld(), QString("0.0.0.0"));
    QCOMPARE(Global::GetInstallerProcId(), 0);
    QCOMPARE(Global::GetIPCFilePath(), QString());
    QCOMPARE(Global::GetUnicodeNsis(), false);
    const QStringList expected{"hIPCWnd= 0",
                               "bDisableChoosePath= false",
                               "bWithoutAgreement= false",
                               "strVersionNew= \"3.0.0.5\"",
                               "strVersionOld= \"0.0.0.0\"",
                               "iInstallerProcId= 0",
                               "strIPCFilePath= \"\"",
                               "bIsUnicodeNsis= false"};
    QCOMPARE(log, expected);
}

void tst_LaunchParams::engineCommandLine()
{
    const QStringList log = parseAll(
        {"CorvalenSetup", "0x10", "1", "true", "", "3.0.0.5", "12", "/tmp/f", "1", "ignored"});
    QCOMPARE(Global::GetIPCWnd(), os::WindowHandle(0));
    QCOMPARE(Global::GetDisableChoosePath(), true);
    QCOMPARE(Global::GetWithoutAgreement(), false);
    QCOMPARE(Global::GetVersionNew(), QString()); // an empty argument replaces the default
    QCOMPARE(Global::GetVersionOld(), QString("3.0.0.5"));
    QCOMPARE(Global::GetInstallerProcId(), 12);
    QCOMPARE(Global::GetIPCFilePath(), QString("/tmp/f"));
    QCOMPARE(Global::GetUnicodeNsis(), true);
    QCOMPARE(log.size(), 8);
    QCOMPARE(log.at(0), QString("hIPCWnd= 0"));
    QCOMPARE(log.at(3), QString("strVersionNew= \"\""));
    QCOMPARE(log.at(5), QString("iInstallerProcId= 12"));
    QCOMPARE(log.at(7), QString("bIsUnicodeNsis= true"));

    // Text arguments arrive in the local 8-bit code page and are taken whole.
    parseAll({"CorvalenSetup", "7", "0", "2", "3.0.0.5 ", "版本", "99999999999", "/tmp/目录 x"});
    QCOMPARE(Global::GetIPCWnd(), os::WindowHandle(7));
    QCOMPARE(Global::GetWithoutAgreement(), true);
    QCOMPARE(Global::GetVersionNew(), QString("3.0.0.5 "));
    QCOMPARE(Global::GetVersionOld(), QString("版本"));
    QCOMPARE(Global::GetInstallerProcId(), 0); // beyond the engine's 32-bit id
    QCOMPARE(Global::GetIPCFilePath(), QString("/tmp/目录 x"));
}

void tst_LaunchParams::sevenArguments()
{
    parseAll({"CorvalenSetup", "5", "0", "0", "3.0.0.6", "3.0.0.5", "100", "/tmp/ipc"});
    QCOMPARE(Global::GetIPCFilePath(), QString("/tmp/ipc"));
    QCOMPARE(Global::GetUnicodeNsis(), false);
}

void tst_LaunchParams::handleIsSignExtended()
{
    parseAll({"CorvalenSetup", "-2"});
    QCOMPARE(Global::GetIPCWnd(), static_cast<os::WindowHandle>(static_cast<std::intptr_t>(-2)));
}

QTEST_GUILESS_MAIN(tst_LaunchParams)
#include "tst_launchparams.moc"
