// The message window, the front end's end of the link with the installer engine, on a fake
// platform: the folder it proposes, what it sends and receives and logs.
#include "widgethelpers.h"

#include "ipc/ipcmessages.h"
#include "ipc/ipcmform.h"
#include "kit/toast.h"
#include "mainform/installlogic.h"
#include "mainform/mainform.h"

#include <xcb/xcb.h>

namespace {

// A posted message as the X server delivers it.
bool deliver(IPCmForm &form, std::uint32_t msg, std::uint64_t wp, std::int64_t lp,
             std::uint32_t type = FakePlatform::atom)
{
    xcb_client_message_event_t e{XCB_CLIENT_MESSAGE | 0x80, 32, 0, 0x80000005u, type, {}};
    const std::uint32_t data[] = {msg, std::uint32_t(wp), std::uint32_t(wp >> 32),
                                  std::uint32_t(lp), std::uint32_t(std::uint64_t(lp) >> 32)};
    std::copy(data, data + 5, e.data.data32);
    long result = 0;
    return form.nativeEvent("xcb_generic_event_t", &e, &result);
}

QString toastText()
{
    return shown<Toast>() ? shown<Toast>()->findChild<QLabel *>()->text() : "";
}

} // namespace

class tst_Link : public QObject
{
    Q_OBJECT
    FakePlatform f;

private slots:
    void init()
    {
        Global::SetSelfTest(false);
        Global::SetIPCWnd(0x600001);
    }

    // The file in Unicode mode only, two bytes at least; the title kept as it is.
    void initialPath_data()
    {
        QTest::addColumn<bool>("unicode");
        QTest::addColumn<QByteArray>("file");
        QTest::addColumn<QString>("title");
        QTest::addColumn<QString>("appData");
        QTest::addColumn<QString>("source");
        QTest::addColumn<QString>("path");
        const QByteArray utf16("E\0:\0\\\0\x89\x5b\xc5\x88", 10);
        QTest::newRow("Unicode: the file") << true << utf16 << "D:\\Apps"
                                           << ""
                                           << "from ipcFile"
                                           << "E:\\安装";
        QTest::newRow("ANSI: the title") << false << utf16 << "D:\\Apps"
                                         << ""
                                         << "from Title"
                                         << "D:\\Apps";
        QTest::newRow("one byte: the title") << true << QByteArray("E") << "D:\\x"
                                             << ""
                                             << "from Title"
                                             << "D:\\x";
        QTest::newRow("blanks kept") << false << QByteArray() << "  D:\\A\\ "
                                     << ""
                                     << "from Title"
                                     << "  D:\\A\\ ";
        QTest::newRow("APPDATA") << false << QByteArray() << ""
                                 << "C:\\A"
                                 << "default"
                                 << "C:\\A\\Tandemo";
        QTest::newRow("nothing") << false << QByteArray() << ""
                                 << ""
                                 << "default"
                                 << "C:\\Tandemo";
    }
    void initialPath()
    {
        QFETCH(bool, unicode);
        QFETCH(QByteArray, file);
        QFETCH(QString, title);
        QFETCH(QString, appData);
        QFETCH(QString, source);
        QFETCH(QString, path);
        QTemporaryDir dir;
        Global::SetIPCFilePath(dir.filePath("ipc.dat"));
        QFile ipc(Global::GetIPCFilePath());
        QVERIFY(ipc.open(QFile::WriteOnly) && ipc.write(file) >= 0 && ipc.flush());
        Global::SetUnicodeNsis(unicode);
        f.titles[0x600001] = title.toStdString();
        f.environment["APPDATA"] = appData.toStdString();
        LogCapture log;
        QCOMPARE(IPCmForm().getInitPath(), path);
        // The debug stream quotes text and escapes its backslashes.
        QCOMPARE(log.lines.first() + '|' + log.lines.last(),
                 QString("bIsUnicodeNsis:  %1|strInitPath %2:  \"%3\"")
                     .arg(unicode ? "true" : "false", source, QString(path).replace("\\", "\\\\")));
    }

    void messages()
    {
        f.titles[0x600001] = "D:\\Apps\\Tandemo";
        Global::SetUnicodeNsis(false);
        IPCmForm form;
        LogCapture log;
        form.sendStartInstall();
        form.sendCancel();
        form.sendStartup();
        form.sendInstallPath("D:\\Apps\\Tandemo");
        f.postOk = false;
        form.sendMsg(WM_IPC_HWND, 0x1234567890ull, -5);
        // Received before the main window is linked: logged, nothing resolved.
        form.setWindowTitle("Form");
        QVERIFY(deliver(form, WM_PATH_INFO, 1, 1));
        QCOMPARE(form.windowTitle(), QString("Form"));
        MainForm main;
        form.setMainForm(&main);
        main.setIPCForm(&form);
        main.move(-201, 600); // the notice is centred on the window as it is when shown
        QVERIFY(deliver(form, WM_PATH_INFO, 1, 1));
        QCOMPARE(form.windowTitle() + child<QLineEdit>(&main, "txtPath")->text(),
                 QString("D:\\Apps\\TandemoD:\\Apps\\Tandemo"));
        QVERIFY(deliver(form, WM_DISK_SPACE, 0x100000000ull | 1500, -1)); // 32 bits each
        QElapsedTimer clock;
        clock.start();
        QCOMPARE(toastText(), InstallLogic::missingFolderNotice("D:\\Apps\\Tandemo"));
        const QSize toast = shown<Toast>()->size();
        QCOMPARE(shown<Toast>()->pos(), QPoint(-201 + (main.width() - toast.width()) / 2,
                                               600 + (main.height() - toast.height()) / 2));
        QCOMPARE(child<QLabel>(&main, "lblSpace")->text(),
                 QString("所需空间：1500MB 可用空间：-1MB"));
        QVERIFY(deliver(form, WM_DISK_SPACE, 4294967295u, 5));
        QCOMPARE(child<QLabel>(&main, "lblSpace")->text(),
                 QString("所需空间：4294967295MB 可用空间：5MB"));
        f.titles[0x600001] = "X:\\other"; // wParam 0: only the writable flag changes
        QVERIFY(deliver(form, WM_PATH_INFO, 0, 0));
        QCOMPARE(child<QLineEdit>(&main, "txtPath")->text(), QString("D:\\Apps\\Tandemo"));
        QVERIFY(deliver(form, WM_MYPROGRESS, 50, 0));
        // Ours but not the front end's: swallowed without a word. Not ours: left to Qt.
        QVERIFY(deliver(form, WM_INSTALL_PATH, 0, 0) && deliver(form, 0x7fff, 0, 0));
        QVERIFY(!deliver(form, WM_MYPROGRESS, 10, 0, FakePlatform::atom + 1));
        Global::SetIPCWnd(0); // no engine window, as in self-test mode
        IPCmForm alone;
        alone.sendCancel();
        const QString sent =
            "IPCmForm::sendMsg: send message to window(%1) %2. msg=%3, wp=%4, lp=%5";
        const QString received = "IPCmForm::nativeEvent: recv message from Installer(hWnd="
                                 "-2147483643), msg=WM_%1, wp=%2, lp=%3";
        const auto got = [&](const char *msg, qint64 wp, int lp) {
            return received.arg(msg).arg(wp).arg(lp);
        };
        const auto ok = [&](int msg, int wp) {
            return sent.arg(6291457).arg("ok").arg(msg).arg(wp).arg(0);
        };
        QCOMPARE(log.lines.filter("IPCmForm::"),
                 QStringList({ok(1125, 1), ok(1127, 0), ok(1126, 0), ok(1125, 0),
                              sent.arg(6291457).arg("fail").arg(1224).arg(78187493520).arg(-5),
                              got("PATH_INFO", 1, 1), got("PATH_INFO", 1, 1),
                              got("DISK_SPACE", 4294968796, -1), got("DISK_SPACE", 4294967295, 5),
                              got("PATH_INFO", 0, 0), got("MYPROGRESS", 50, 0),
                              sent.arg(0).arg("fail").arg(1127).arg(0).arg(0)}));
        // The engine's own window is kept hidden, again and again; the notice is up for three
        // seconds.
        QTest::qWait(2000 - clock.elapsed());
        QVERIFY(!toastText().isEmpty());
        QTRY_VERIFY_WITH_TIMEOUT(toastText().isEmpty(), 8000);
        QVERIFY(f.hidden.size() >= 2 &&
                std::set(f.hidden.begin(), f.hidden.end()) == std::set<os::WindowHandle>{0x600001});
        // Completion quits even unlinked, and is not handed on to Qt's X11 handler.
        bool consumed = false;
        QTimer::singleShot(0, [&] { consumed = deliver(alone, WM_COMPLETE_INSTALL, 0, 0); });
        QCOMPARE(execBounded(), 0);
        QVERIFY(consumed);
    }
};

QTEST_MAIN(tst_Link)
#include "tst_link.moc"
