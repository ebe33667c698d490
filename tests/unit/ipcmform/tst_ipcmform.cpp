#include <QtTest>

#include "app/global.h"
#include "fakeplatform.h"
#include "ipc/initpath.h"
#include "ipc/ipcmessages.h"
#include "ipc/ipcmform.h"
#include "logcapture.h"
#include "mainform/mainform.h"

#include <QLabel>
#include <QLineEdit>

#include <xcb/xcb.h>

namespace {

xcb_client_message_event_t record(const FakePlatform &fake, std::uint32_t window, std::uint32_t msg,
                                  std::uint64_t wParam, std::int64_t lParam)
{
    xcb_client_message_event_t e{};
    e.response_type = XCB_CLIENT_MESSAGE | 0x80;
    e.format = 32;
    e.window = window;
    e.type = fake.postedMessageAtom;
    const auto l = static_cast<std::uint64_t>(lParam);
    e.data.data32[0] = msg;
    e.data.data32[1] = static_cast<std::uint32_t>(wParam);
    e.data.data32[2] = static_cast<std::uint32_t>(wParam >> 32);
    e.data.data32[3] = static_cast<std::uint32_t>(l);
    e.data.data32[4] = static_cast<std::uint32_t>(l >> 32);
    return e;
}

using TestIPCmForm = IPCmForm;

} // namespace

class tst_IPCmForm : public QObject
{
    Q_OBJECT

private slots:
    void init();
    void cleanup();
    void decodeIpcFile_data();
    void decodeIpcFile();
    void initPathSources_data();
    void initPathSources();
    void sendLogLines();
    void sendInSelfTestFails();
    void receiveLogsAndDispatches();
    void receiveBeforeLinking();
    void completeQuitsEvenUnlinked();
    void onlyForeignEventsAreLeftToQt();
    void engineWindowKeptHidden();

private:
    FakePlatform *m_fake = nullptr;
    FakePlatformScope *m_scope = nullptr;
    QTemporaryDir m_dir;
};

void tst_IPCmForm::init()
{
    m_fake = new FakePlatform;
    m_scope = new FakePlatformScope(*m_fake);
    Global::SetSelfTest(false);
    Global::SetIPCWnd(0);
    Global::SetUnicodeNsis(false);
    Global::SetIPCFilePath(QString());
}

void tst_IPCmForm::cleanup()
{
    delete m_scope;
    delete m_fake;
    Global::SetIPCWnd(0);
}

void tst_IPCmForm::decodeIpcFile_data()
{
    QTest::addColumn<QByteArray>("bytes");
    QTest::addColumn<QString>("text");
    QTest::newRow("empty") << QByteArray() << QString();
    QTest::newRow("one byte") << QByteArray("C") << QString();
    QTest::newRow("plain") << QByteArray("C\0:\0\\\0", 6) << QString("C:\\");
    QTest::newRow("odd byte dropped") << QByteArray("C\0:\0x", 5) << QString("C:");
    QTest::newRow("byte-order mark kept") << QByteArray("\xff\xfe"
                                                        "D\0",
                                                        4)
                                          << QString(QChar(0xfeff)) + "D";
    QTest::newRow("outside Latin-1") << QByteArray("\x89\x5b\xc5\x88", 4) << QString("安装");
    QTest::newRow("embedded zero kept")
        << QByteArray("a\0\0\0b\0", 6) << QString("a") + QChar(0) + "b";
}

void tst_IPCmForm::decodeIpcFile()
{
    QFETCH(QByteArray, bytes);
    QFETCH(QString, text);
    QCOMPARE(InitPath::decodeIpcFile(bytes), text);
}

void tst_IPCmForm::initPathSources_data()
{
    QTest::addColumn<bool>("unicode");
    QTest::addColumn<QByteArray>("fileBytes"); // no file when null
    QTest::addColumn<bool>("hasWindow");
    QTest::addColumn<QString>("title");
    QTest::addColumn<QString>("appData");
    QTest::addColumn<QString>("path");
    QTest::addColumn<QString>("source");

    const QByteArray utf16 = QByteArray("E\0:\0\\\0\x89\x5b\xc5\x88", 10);
    QTest::newRow("file in Unicode mode") << true << utf16 << true << "D:\\Apps\\Tandemo"
                                          << ""
                                          << "E:\\安装"
                                          << "ipcFile";
    QTest::newRow("file ignored in ANSI mode") << false << utf16 << true << "D:\\Apps\\Tandemo"
                                               << ""
                                               << "D:\\Apps\\Tandemo"
                                               << "Title";
    QTest::newRow("one-byte file falls through to title")
        << true << QByteArray("E") << true << "D:\\Apps\\Tandemo"
        << ""
        << "D:\\Apps\\Tandemo"
        << "Title";
    QTest::newRow("missing file falls through to title") << true << QByteArray() << true << "D:\\x"
                                                         << ""
                                                         << "D:\\x"
                                                         << "Title";
    QTest::newRow("no window, APPDATA set") << false << QByteArray() << false << ""
                                            << "C:\\Users\\x\\AppData\\Roaming"
                                            << "C:\\Users\\x\\AppData\\Roaming\\Tandemo"
                                            << "Environment";
    QTest::newRow("untitled window, APPDATA set") << false << QByteArray() << true << ""
                                                  << "C:\\A"
                                                  << "C:\\A\\Tandemo"
                                                  << "Environment";
    QTest::newRow("nothing at all") << false << QByteArray() << false << ""
                                    << ""
                                    << "C:\\Tandemo"
                                    << "Environment";
    QTest::newRow("title kept as it is") << false << QByteArray() << true << "  D:\\Apps\\ "
                                         << ""
                                         << "  D:\\Apps\\ "
                                         << "Title";
}

void tst_IPCmForm::initPathSources()
{
    QFETCH(bool, unicode);
    QFETCH(QByteArray, fileBytes);
    QFETCH(bool, hasWindow);
    QFETCH(QString, title);
    QFETCH(QString, appData);
    QFETCH(QString, path);
    QFETCH(QString, source);

    const QString file = m_dir.filePath("ipc.dat");
    QFile::remove(file);
    if (!fileBytes.isNull()) {
        QFile f(file);
        QVERIFY(f.open(QFile::WriteOnly));
        f.write(fileBytes);
    }
    Global::SetUnicodeNsis(unicode);
    Global::SetIPCFilePath(file);
    Global::SetIPCWnd(hasWindow ? 0x600001 : 0);
    m_fake->titles[0x600001] = title.toLocal8Bit().toStdString();
    if (!appData.isEmpty())
        m_fake->environment["APPDATA"] = appData.toStdString();

    IPCmForm form;
    LogCapture log;
    QCOMPARE(form.getInitPath(), path);
    QCOMPARE(log.lines.first(), QString("bIsUnicodeNsis:  %1").arg(unicode ? "true" : "false"));
    // The debug stream quotes text and escapes its backslashes.
    const QString quoted = '"' + QString(path).replace("\\", "\\\\") + '"';
    const QString sourcePrefix = QString("strInitPath from %1:  ").arg(source);
    QVERIFY2(std::any_of(log.lines.begin(), log.lines.end(),
                         [&](const QString &l) { return l.startsWith(sourcePrefix); }),
             qPrintable(log.lines.join('\n')));
    if (source != "Environment")
        QCOMPARE(log.lines.last(), sourcePrefix + quoted);
    if (source == "Environment") {
        QCOMPARE(log.lines.last(), "strInitPath default:  " + quoted);
        QCOMPARE(m_fake->debugLines.back(),
                 "GetEnvironmentVariableA(\"APPDATA\"): " + appData.toStdString());
    }
    if (source == "Title")
        QCOMPARE(m_fake->debugLines.front(), "GetWindowTextA: " + title.toStdString());
    if (source == "ipcFile")
        QVERIFY(m_fake->debugLines.empty());
}

void tst_IPCmForm::sendLogLines()
{
    Global::SetIPCWnd(0x600001);
    IPCmForm form;
    LogCapture log;
    form.sendStartInstall();
    form.sendCancel();
    form.sendStartup();
    form.sendInstallPath("D:\\Apps\\Tandemo");
    QCOMPARE(form.windowTitle(), QString("D:\\Apps\\Tandemo"));
    m_fake->postOk = false;
    form.sendMsg(WM_IPC_HWND, 0x1234567890ull, -5);
    QCOMPARE(log.lines,
             QStringList({
                 "IPCmForm::sendMsg: send message to window(6291457) ok. msg=1125, wp=1, lp=0",
                 "IPCmForm::sendMsg: send message to window(6291457) ok. msg=1127, wp=0, lp=0",
                 "IPCmForm::sendMsg: send message to window(6291457) ok. msg=1126, wp=0, lp=0",
                 "IPCmForm::sendMsg: send message to window(6291457) ok. msg=1125, wp=0, lp=0",
                 "IPCmForm::sendMsg: send message to window(6291457) fail. msg=1224, "
                 "wp=78187493520, lp=-5",
             }));
    QCOMPARE(m_fake->posted.size(), size_t(4));
    QCOMPARE(m_fake->posted[0].message, WM_INSTALL_PATH);
    QCOMPARE(m_fake->posted[0].wParam, 1u);
    QCOMPARE(m_fake->posted[3].wParam, 0u);
}

void tst_IPCmForm::sendInSelfTestFails()
{
    Global::SetSelfTest(true);
    IPCmForm form;
    LogCapture log;
    form.sendCancel();
    QCOMPARE(
        log.lines,
        QStringList("IPCmForm::sendMsg: send message to window(0) fail. msg=1127, wp=0, lp=0"));
    QVERIFY(m_fake->posted.empty());
    Global::SetSelfTest(false);
}

void tst_IPCmForm::receiveLogsAndDispatches()
{
    Global::SetIPCWnd(0x600001);
    Global::SetSelfTest(false);
    m_fake->titles[0x600001] = "D:\\Apps\\Tandemo";
    TestIPCmForm form;
    MainForm main;
    form.setMainForm(&main);
    main.setIPCForm(&form);
    LogCapture log;
    long result = 0;

    auto e = record(*m_fake, 0x80000005u, WM_DISK_SPACE, 0x100000000ull | 1500, -1);
    QVERIFY(form.nativeEvent("xcb_generic_event_t", &e, &result));
    QCOMPARE(log.lines.first(),
             QString("IPCmForm::nativeEvent: recv message from Installer(hWnd=-2147483643), "
                     "msg=WM_DISK_SPACE, wp=4294968796, lp=-1"));
    QVERIFY(
        main.findChild<QLabel *>("lblSpace")->text().contains("所需空间：1500MB 可用空间：-1MB"));

    e = record(*m_fake, 7, WM_PATH_INFO, 1, 1);
    QVERIFY(form.nativeEvent("xcb_generic_event_t", &e, &result));
    QCOMPARE(form.windowTitle(), QString("D:\\Apps\\Tandemo"));
    QCOMPARE(main.findChild<QLineEdit *>("txtPath")->text(), QString("D:\\Apps\\Tandemo"));

    // wParam 0: only the writable flag changes; the path field keeps what it shows.
    m_fake->titles[0x600001] = "X:\\other";
    e = record(*m_fake, 7, WM_PATH_INFO, 0, 0);
    QVERIFY(form.nativeEvent("xcb_generic_event_t", &e, &result));
    QCOMPARE(main.findChild<QLineEdit *>("txtPath")->text(), QString("D:\\Apps\\Tandemo"));

    e = record(*m_fake, 7, WM_MYPROGRESS, 50, 0);
    QVERIFY(form.nativeEvent("xcb_generic_event_t", &e, &result));
    QVERIFY(log.lines.last().endsWith("msg=WM_MYPROGRESS, wp=50, lp=0"));
}

void tst_IPCmForm::receiveBeforeLinking()
{
    Global::SetIPCWnd(0x600001);
    TestIPCmForm form;
    LogCapture log;
    long result = 0;
    auto e = record(*m_fake, 7, WM_PATH_INFO, 1, 1);
    QVERIFY(form.nativeEvent("xcb_generic_event_t", &e, &result));
    QCOMPARE(log.lines.size(), 1); // logged, nothing resolved
    QCOMPARE(form.windowTitle(), QString("Form"));
}

void tst_IPCmForm::completeQuitsEvenUnlinked()
{
    TestIPCmForm form;
    long result = 0;
    auto e = record(*m_fake, 7, WM_COMPLETE_INSTALL, 0, 0);
    bool consumed = false;
    QTimer::singleShot(0, [&] { consumed = form.nativeEvent("xcb_generic_event_t", &e, &result); });
    QTimer fallback;
    connect(&fallback, &QTimer::timeout, [] { QCoreApplication::exit(3); });
    fallback.start(20000);
    QCOMPARE(QCoreApplication::exec(), 0);
    QVERIFY(consumed); // not handed on to Qt's X11 handler
}

void tst_IPCmForm::onlyForeignEventsAreLeftToQt()
{
    TestIPCmForm form;
    LogCapture log;
    long result = 0;
    // Ours, of a number the front end does not take: swallowed silently.
    for (std::uint32_t msg : {std::uint32_t(WM_INSTALL_PATH), 0x7fffu}) {
        auto e = record(*m_fake, 7, msg, 0, 0);
        QVERIFY(form.nativeEvent("xcb_generic_event_t", &e, &result));
    }
    auto foreign = record(*m_fake, 7, WM_MYPROGRESS, 10, 0);
    foreign.type = m_fake->postedMessageAtom + 1; // e.g. _NET_WM_STATE from Qt itself
    QVERIFY(!form.nativeEvent("xcb_generic_event_t", &foreign, &result));
    QVERIFY(log.lines.isEmpty());
}

void tst_IPCmForm::engineWindowKeptHidden()
{
    {
        IPCmForm noEngine;
        QTest::qWait(250);
        QVERIFY(m_fake->hidden.empty());
    }
    Global::SetIPCWnd(0x600001);
    IPCmForm form;
    QTRY_VERIFY(m_fake->hidden.size() >= 2);
    QCOMPARE(m_fake->hidden.front(), os::WindowHandle(0x600001));
}

QTEST_MAIN(tst_IPCmForm)
#include "tst_ipcmform.moc"
