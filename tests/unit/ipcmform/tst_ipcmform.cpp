// The message window: where the proposed folder comes from, what is sent and how it is
// logged, what each received message does.
#include <QtTest>

#include "app/global.h"
#include "fakeplatform.h"
#include "ipc/initpath.h"
#include "ipc/ipcmessages.h"
#include "ipc/ipcmform.h"
#include "logcapture.h"
#include "mainform/mainform.h"
#include "uitest.h"

#include <QLineEdit>

#include <xcb/xcb.h>

struct InitPathRow
{
    bool unicode;
    QByteArray fileBytes; // no file when null
    bool hasWindow;
    QString title, appData, source, path;
};
Q_DECLARE_METATYPE(InitPathRow)

namespace {

// A posted message as the X server delivers it.
xcb_client_message_event_t record(std::uint32_t type, std::uint32_t window, std::uint32_t msg,
                                  std::uint64_t wParam, std::int64_t lParam)
{
    xcb_client_message_event_t e{};
    e.response_type = XCB_CLIENT_MESSAGE | 0x80;
    e.format = 32;
    e.window = window;
    e.type = type;
    e.data.data32[0] = msg;
    e.data.data32[1] = std::uint32_t(wParam);
    e.data.data32[2] = std::uint32_t(wParam >> 32);
    e.data.data32[3] = std::uint32_t(std::uint64_t(lParam));
    e.data.data32[4] = std::uint32_t(std::uint64_t(lParam) >> 32);
    return e;
}

} // namespace

class tst_IPCmForm : public QObject
{
    Q_OBJECT

private slots:
    void init()
    {
        engineRun(m_fake);
        Global::SetUnicodeNsis(false);
        Global::SetIPCFilePath(QString());
    }

    void cleanup() { os::setPlatform(nullptr); }
    void decodeIpcFile()
    {
        const std::pair<QByteArray, QString> rows[] = {
            {QByteArray("C"), QString()},
            {QByteArray("C\0:\0x", 5), QString("C:")}, // odd byte dropped
            {QByteArray("\xff\xfe"
                        "D\0",
                        4),
             QString(QChar(0xfeff)) + "D"}, // byte-order mark kept
            {QByteArray("\x89\x5b\xc5\x88", 4), QString("安装")},
            {QByteArray("a\0\0\0b\0", 6), QString("a") + QChar(0) + "b"}};
        for (const auto &[bytes, text] : rows)
            QCOMPARE(InitPath::decodeIpcFile(bytes), text);
    }

    void initPathSources_data()
    {
        QTest::addColumn<InitPathRow>("row");
        const QByteArray utf16("E\0:\0\\\0\x89\x5b\xc5\x88", 10);
        QTest::newRow("file in Unicode mode")
            << InitPathRow{true, utf16, true, "D:\\Apps", "", "from ipcFile", "E:\\安装"};
        QTest::newRow("file ignored in ANSI mode")
            << InitPathRow{false, utf16, true, "D:\\Apps", "", "from Title", "D:\\Apps"};
        QTest::newRow("one-byte file: title")
            << InitPathRow{true, "E", true, "D:\\x", "", "from Title", "D:\\x"};
        QTest::newRow("title kept as it is")
            << InitPathRow{false, {}, true, "  D:\\A\\ ", "", "from Title", "  D:\\A\\ "};
        QTest::newRow("untitled window, APPDATA")
            << InitPathRow{false, {}, true, "", "C:\\A", "default", "C:\\A\\Tandemo"};
        QTest::newRow("nothing at all")
            << InitPathRow{false, {}, false, "", "", "default", "C:\\Tandemo"};
    }

    void initPathSources()
    {
        QFETCH(InitPathRow, row);
        const QString file = m_dir.filePath("ipc.dat");
        QFile::remove(file);
        QFile f(file);
        if (!row.fileBytes.isNull())
            QVERIFY(f.open(QFile::WriteOnly) && f.write(row.fileBytes) == row.fileBytes.size());
        f.close();
        Global::SetUnicodeNsis(row.unicode);
        Global::SetIPCFilePath(file);
        Global::SetIPCWnd(row.hasWindow ? 0x600001 : 0);
        m_fake.titles[0x600001] = row.title.toStdString();
        m_fake.environment["APPDATA"] = row.appData.toStdString();
        IPCmForm form;
        LogCapture log;
        QCOMPARE(form.getInitPath(), row.path);
        QCOMPARE(log.lines.first(),
                 QString("bIsUnicodeNsis:  %1").arg(row.unicode ? "true" : "false"));
        // The debug stream quotes text and escapes its backslashes.
        QCOMPARE(log.lines.last(), QString("strInitPath %1:  \"%2\"")
                                       .arg(row.source, QString(row.path).replace("\\", "\\\\")));
    }

    void sendLogLines()
    {
        IPCmForm form;
        LogCapture log;
        form.sendStartInstall();
        form.sendCancel();
        form.sendStartup();
        form.sendInstallPath("D:\\Apps\\Tandemo");
        QCOMPARE(form.windowTitle(), QString("D:\\Apps\\Tandemo")); // where the engine reads it
        m_fake.postOk = false;
        form.sendMsg(WM_IPC_HWND, 0x1234567890ull, -5);
        Global::SetIPCWnd(0); // no engine window, as in self-test mode
        IPCmForm alone;
        alone.sendCancel();
        const QString line =
            "IPCmForm::sendMsg: send message to window(%1) %2. msg=%3, wp=%4, lp=%5";
        QCOMPARE(log.lines,
                 QStringList({line.arg(6291457).arg("ok").arg(1125).arg(1).arg(0),
                              line.arg(6291457).arg("ok").arg(1127).arg(0).arg(0),
                              line.arg(6291457).arg("ok").arg(1126).arg(0).arg(0),
                              line.arg(6291457).arg("ok").arg(1125).arg(0).arg(0),
                              line.arg(6291457).arg("fail").arg(1224).arg(78187493520).arg(-5),
                              line.arg(0).arg("fail").arg(1127).arg(0).arg(0)}));
        QCOMPARE(m_fake.posted.size(), size_t(4));
        QCOMPARE(m_fake.posted[0].message, WM_INSTALL_PATH);
        QCOMPARE(m_fake.posted[0].wParam, 1u);
    }

    void receive()
    {
        m_fake.titles[0x600001] = "D:\\Apps\\Tandemo";
        IPCmForm form;
        LogCapture log;
        long result = 0;
        const auto deliver = [&](std::uint32_t type, std::uint32_t msg, std::uint64_t wp,
                                 std::int64_t lp) {
            auto e = record(type, 0x80000005u, msg, wp, lp);
            return form.nativeEvent("xcb_generic_event_t", &e, &result);
        };
        const std::uint32_t ours = m_fake.postedMessageAtom;
        // Before the main window is linked: logged, nothing resolved.
        QVERIFY(deliver(ours, WM_PATH_INFO, 1, 1));
        QCOMPARE(form.windowTitle(), QString("Form"));
        MainForm main;
        form.setMainForm(&main);
        main.setIPCForm(&form);
        QVERIFY(deliver(ours, WM_DISK_SPACE, 0x100000000ull | 1500, -1));
        QCOMPARE(child<QLabel>(&main, "lblSpace")->text(),
                 QString("所需空间：1500MB 可用空间：-1MB"));
        QVERIFY(deliver(ours, WM_PATH_INFO, 1, 1));
        QCOMPARE(form.windowTitle(), QString("D:\\Apps\\Tandemo"));
        QCOMPARE(child<QLineEdit>(&main, "txtPath")->text(), QString("D:\\Apps\\Tandemo"));
        m_fake.titles[0x600001] = "X:\\other"; // wParam 0: only the writable flag changes
        QVERIFY(deliver(ours, WM_PATH_INFO, 0, 0));
        QCOMPARE(child<QLineEdit>(&main, "txtPath")->text(), QString("D:\\Apps\\Tandemo"));
        QVERIFY(deliver(ours, WM_MYPROGRESS, 50, 0));
        // Ours but not the front end's: swallowed without a word. Not ours: left to Qt.
        QVERIFY(deliver(ours, WM_INSTALL_PATH, 0, 0));
        QVERIFY(deliver(ours, 0x7fff, 0, 0));
        QVERIFY(!deliver(ours + 1, WM_MYPROGRESS, 10, 0));
        const QString line =
            "IPCmForm::nativeEvent: recv message from Installer(hWnd=-2147483643), "
            "msg=%1, wp=%2, lp=%3";
        QCOMPARE(log.lines.filter("nativeEvent"),
                 QStringList({line.arg("WM_PATH_INFO").arg(1).arg(1),
                              line.arg("WM_DISK_SPACE").arg(4294968796).arg(-1),
                              line.arg("WM_PATH_INFO").arg(1).arg(1),
                              line.arg("WM_PATH_INFO").arg(0).arg(0),
                              line.arg("WM_MYPROGRESS").arg(50).arg(0)}));
    }

    void completeQuitsEvenUnlinked()
    {
        IPCmForm form;
        long result = 0;
        auto e = record(m_fake.postedMessageAtom, 7, WM_COMPLETE_INSTALL, 0, 0);
        bool consumed = false;
        QTimer::singleShot(
            0, [&] { consumed = form.nativeEvent("xcb_generic_event_t", &e, &result); });
        QCOMPARE(execBounded(), 0);
        QVERIFY(consumed); // not handed on to Qt's X11 handler
    }

    void engineWindowKeptHidden()
    {
        {
            Global::SetIPCWnd(0);
            IPCmForm noEngine;
            QTest::qWait(250);
            QVERIFY(m_fake.hidden.empty());
        }
        Global::SetIPCWnd(0x600001);
        IPCmForm form;
        QTRY_VERIFY(m_fake.hidden.size() >= 2); // again and again
        QCOMPARE(m_fake.hidden.front(), os::WindowHandle(0x600001));
    }

private:
    FakePlatform m_fake;
    QTemporaryDir m_dir;
};

QTEST_MAIN(tst_IPCmForm)
#include "tst_ipcmform.moc"
