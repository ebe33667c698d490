#include <QtTest>

#include "app/global.h"
#include "fakeplatform.h"
#include "ipc/ipcmessages.h"
#include "ipc/ipcmform.h"
#include "kit/fonts.h"
#include "kit/toast.h"
#include "mainform/installlogic.h"
#include "mainform/mainform.h"
#include "modalanswer.h"

#include <QDesktopServices>
#include <QLabel>
#include <QLineEdit>
#include <QPushButton>
#include <QThreadPool>

#include <limits>

namespace {

template <typename T = QWidget> T *child(QWidget *w, const char *name)
{
    T *c = w->findChild<T *>(name);
    if (!c)
        qFatal("no child %s", name);
    return c;
}

QString toastText()
{
    for (QWidget *w : QApplication::topLevelWidgets())
        if (auto *toast = qobject_cast<Toast *>(w))
            if (toast->isVisible())
                return toast->findChild<QLabel *>("label")->text();
    return QString();
}

void hideToasts()
{
    for (QWidget *w : QApplication::topLevelWidgets())
        if (qobject_cast<Toast *>(w))
            w->hide();
}

int liveShadowFrames(QWidget *window)
{
    int n = 0;
    for (QFrame *f : window->findChildren<QFrame *>(QString(), Qt::FindDirectChildrenOnly))
        if (f->graphicsEffect())
            ++n;
    return n;
}

class UrlCatcher : public QObject
{
    Q_OBJECT
public:
    QList<QUrl> urls;
public slots:
    void open(const QUrl &url) { urls << url; }
};

} // namespace

Q_DECLARE_METATYPE(std::vector<os::ProcessEntry>)

class tst_MainForm : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase();
    void init();
    void cleanup();
    void layout_data();
    void layout();
    void stackingAndGroups();
    void construction();
    void foldTwiceLeavesOneShadow();
    void hoverPair();
    void browsedPath_data();
    void browsedPath();
    void diskSpace();
    void refusals_data();
    void refusals();
    void runningApplication_data();
    void runningApplication();
    void checkMeetsCloseQuestion_data();
    void checkMeetsCloseQuestion();
    void destructionWaitsForEveryCheck();
    void progressWidth_data();
    void progressWidth();
    void progressAndCompletion();
    void progressOutsideInstallingIsIgnored();
    void closeQuestion();
    void closeWhenCompleted();
    void agreementLinks();
    void withoutAgreement();
    void look();

private:
    // Linked, shown, a writable folder with room, the agreement ticked: 安装 passes its checks.
    void readyToInstall(MainForm &form)
    {
        form.setIPCForm(m_ipc);
        form.show();
        form.setInstallPath("D:\\x\\Tandemo", true);
        form.setDiskSpace(1500, 10000);
        child<QPushButton>(&form, "btnChkbox")->click();
    }

    FakePlatform m_fake;
    IPCmForm *m_ipc = nullptr;
};

void tst_MainForm::initTestCase()
{
    installFontSubstitutions();
}

void tst_MainForm::init()
{
    m_fake = FakePlatform();
    os::setPlatform(&m_fake);
    Global::SetSelfTest(false);
    Global::SetIPCWnd(0x600001);
    Global::SetVersionNew("3.0.0.5");
    Global::SetDisableChoosePath(false);
    m_ipc = new IPCmForm;
}

void tst_MainForm::cleanup()
{
    delete m_ipc;
    hideToasts();
    os::setPlatform(nullptr);
}

void tst_MainForm::layout_data()
{
    QTest::addColumn<QString>("name");
    QTest::addColumn<QString>("cls");
    QTest::addColumn<QString>("parent");
    QTest::addColumn<QRect>("geometry");
    QTest::addColumn<QString>("text");
    QTest::addColumn<QSize>("iconSize"); // invalid: not a button with an icon size
    QTest::newRow("btnClose") << "btnClose"
                              << "MyPushButton"
                              << "frame" << QRect(420, 21, 20, 20) << "" << QSize(20, 20);
    QTest::newRow("lblLogo") << "lblLogo"
                             << "QLabel"
                             << "frame" << QRect(200, 80, 60, 60) << "" << QSize();
    QTest::newRow("label") << "label"
                           << "QLabel"
                           << "frame" << QRect(0, 160, 460, 20) << "Corvalen V3.0.0.5" << QSize();
    QTest::newRow("btnInstall") << "btnInstall"
                                << "MyPushButton"
                                << "frame" << QRect(180, 190, 100, 34) << "安装" << QSize(100, 34);
    QTest::newRow("btnMore0") << "btnMore0"
                              << "QPushButton"
                              << "frame" << QRect(193, 290, 57, 20) << "更多选项" << QSize();
    QTest::newRow("btnMore1") << "btnMore1"
                              << "MyFoldButton"
                              << "frame" << QRect(250, 290, 20, 20) << "" << QSize(20, 20);
    QTest::newRow("txtPath") << "txtPath"
                             << "MyLineEdit"
                             << "frame" << QRect(20, 330, 328, 34) << "" << QSize();
    QTest::newRow("btnBrowserPath")
        << "btnBrowserPath"
        << "MyPushButton"
        << "frame" << QRect(360, 330, 80, 34) << "浏览" << QSize(80, 34);
    QTest::newRow("lblSpace") << "lblSpace"
                              << "QLabel"
                              << "frame" << QRect(0, 372, 460, 17)
                              << "所需空间：450MB 可用空间：50GB" << QSize();
    QTest::newRow("frmService") << "frmService"
                                << "QFrame"
                                << "frame" << QRect(96, 238, 268, 24) << "" << QSize();
    QTest::newRow("btnPrivate") << "btnPrivate"
                                << "QPushButton"
                                << "frmService" << QRect(207, 2, 61, 20) << "隐私政策" << QSize();
    QTest::newRow("btnService") << "btnService"
                                << "QPushButton"
                                << "frmService" << QRect(124, 2, 61, 20) << "服务协议" << QSize();
    QTest::newRow("btnChkbox") << "btnChkbox"
                               << "MyCheckBox"
                               << "frmService" << QRect(0, 5, 16, 16) << "" << QSize(16, 16);
    QTest::newRow("label_2") << "label_2"
                             << "QLabel"
                             << "frmService" << QRect(22, 2, 101, 20) << "我已阅读并同意"
                             << QSize();
    QTest::newRow("label_3") << "label_3"
                             << "QLabel"
                             << "frmService" << QRect(188, 2, 18, 20) << "和" << QSize();
    QTest::newRow("lblInstalling") << "lblInstalling"
                                   << "QLabel"
                                   << "frame" << QRect(0, 190, 460, 20) << "正在安装..." << QSize();
    QTest::newRow("lblProgressBg") << "lblProgressBg"
                                   << "QLabel"
                                   << "frame" << QRect(40, 227, 380, 12) << "" << QSize();
    QTest::newRow("btnStartup") << "btnStartup"
                                << "MyPushButton"
                                << "frame" << QRect(180, 244, 100, 34) << "开始使用"
                                << QSize(100, 34);
}

void tst_MainForm::layout()
{
    QFETCH(QString, name);
    QFETCH(QString, cls);
    QFETCH(QString, parent);
    QFETCH(QRect, geometry);
    QFETCH(QString, text);
    QFETCH(QSize, iconSize);
    MainForm form;
    QWidget *w = form.findChild<QWidget *>(name);
    QVERIFY(w);
    QCOMPARE(QString(w->metaObject()->className()), cls);
    QCOMPARE(w->parentWidget()->objectName(), parent);
    QCOMPARE(w->geometry(), geometry);
    QCOMPARE(w->contextMenuPolicy(),
             name == "label_3" ? Qt::DefaultContextMenu : Qt::NoContextMenu);
    if (auto *label = qobject_cast<QLabel *>(w))
        QCOMPARE(label->text(), text);
    if (auto *button = qobject_cast<QAbstractButton *>(w))
        QCOMPARE(button->text(), text);
    if (iconSize.isValid())
        QCOMPARE(qobject_cast<QAbstractButton *>(w)->iconSize(), iconSize);
}

void tst_MainForm::stackingAndGroups()
{
    MainForm form;
    QWidget *frame = child(&form, "frame");
    QStringList order;
    for (QObject *o : frame->children())
        if (o->isWidgetType())
            order << o->objectName();
    QCOMPARE(order, QStringList({"btnClose", "lblLogo", "label", "btnInstall", "btnMore0",
                                 "btnMore1", "txtPath", "btnBrowserPath", "lblSpace", "frmService",
                                 "lblInstalling", "lblProgressBg", "lblProgressFg", "btnStartup"}));
    QVERIFY(child<QLineEdit>(&form, "txtPath")->isReadOnly());
    QCOMPARE(child(&form, "lblProgressFg")->styleSheet(),
             QString("background: #5998FF;\nborder-radius: 6px;\nborder-radius: 6px;"));
    QCOMPARE(child(&form, "btnClose")->accessibleName(), QString("关闭"));
    QCOMPARE(child(&form, "btnChkbox")->accessibleName(),
             QString("我已阅读并同意服务协议和隐私政策"));
    QCOMPARE(child(&form, "btnMore1")->accessibleName(), QString("更多选项"));
}

void tst_MainForm::construction()
{
    Global::SetDisableChoosePath(true);
    MainForm form;
    QCOMPARE(int(form.windowFlags()), 0x803);
    QVERIFY(form.testAttribute(Qt::WA_TranslucentBackground));
    QCOMPARE(form.windowTitle(), QString("Corvalen"));
    QVERIFY(!child(&form, "btnBrowserPath")->isEnabled());
    QCOMPARE(form.size(), QSize(476, 346));
    QCOMPARE(child(&form, "btnMore1")->property("css").toString(), QString("down"));
    QCOMPARE(child(&form, "btnChkbox")->property("css").toString(), QString("unchecked"));
    QVERIFY(form.styleSheet().startsWith("QFrame#frame"));
    // The icon is the logo at its full size.
    const QPixmap logo = child<QLabel>(&form, "lblLogo")->pixmap(Qt::ReturnByValue);
    QCOMPARE(form.windowIcon().availableSizes(), QList<QSize>{QSize(300, 300)});
    const QImage icon = form.windowIcon().pixmap(QSize(300, 300)).toImage();
    QImage expected = logo.toImage().convertToFormat(icon.format());
    expected.setDevicePixelRatio(icon.devicePixelRatio());
    QCOMPARE(icon, expected);
    form.show();
    QVERIFY(child(&form, "btnInstall")->isVisible());
    QVERIFY(!child(&form, "lblInstalling")->isVisible());
    QVERIFY(!child(&form, "btnStartup")->isVisible());
    // Outside self-test mode nothing is known about the folder until the engine says so.
    QCOMPARE(child<QLineEdit>(&form, "txtPath")->text(), QString());
    Global::SetDisableChoosePath(false);

    Global::SetSelfTest(true);
    MainForm selfTest;
    QCOMPARE(child<QLineEdit>(&selfTest, "txtPath")->text(), QString("C:\\Tandemo"));
    QCOMPARE(child<QLabel>(&selfTest, "lblSpace")->text(),
             QString("所需空间：1500MB 可用空间：10000MB"));
}

void tst_MainForm::foldTwiceLeavesOneShadow()
{
    MainForm form;
    form.show();
    auto *more = child<QPushButton>(&form, "btnMore0");
    more->click();
    QCOMPARE(form.size(), QSize(476, 426));
    QCOMPARE(child(&form, "btnMore1")->property("css").toString(), QString("up"));
    child<QPushButton>(&form, "btnMore1")->click();
    QCOMPARE(form.size(), QSize(476, 346));
    QCoreApplication::sendPostedEvents(nullptr, QEvent::DeferredDelete);
    QCOMPARE(liveShadowFrames(&form), 1);
    QCOMPARE(child(&form, "frame")->geometry(), QRect(8, 8, 460, 330));
}

void tst_MainForm::hoverPair()
{
    MainForm form;
    auto *more0 = child(&form, "btnMore0");
    auto *more1 = child(&form, "btnMore1");
    auto hover = [](QWidget *w, QEvent::Type t) {
        QHoverEvent e(t, QPointF(1, 1), QPointF(-1, -1));
        QCoreApplication::sendEvent(w, &e);
    };
    hover(more1, QEvent::HoverEnter);
    QCOMPARE(more0->styleSheet(),
             QString("font-family: 'Microsoft YaHei';font - size: 14px;color: #5998FF;"));
    QCOMPARE(more1->styleSheet(), QString("image: url('://images/morechoose_down_hover.svg') ;"));
    hover(more1, QEvent::HoverLeave);
    QCOMPARE(more0->styleSheet(),
             QString("font-family: 'Microsoft YaHei';font - size: 14px;color: #838487;"));
    QCOMPARE(more1->styleSheet(), QString("image: url('://images/morechoose_down_normal.svg') ;"));
    child<QPushButton>(&form, "btnMore0")->click(); // unfold
    hover(more0, QEvent::HoverEnter);
    QCOMPARE(more1->styleSheet(), QString("image: url('://images/morechoose_up_hover.svg') ;"));
    hover(more0, QEvent::HoverLeave);
    QCOMPARE(more1->styleSheet(), QString("image: url('://images/morechoose_up_normal.svg') ;"));
}

void tst_MainForm::browsedPath_data()
{
    QTest::addColumn<QString>("chosen");
    QTest::addColumn<QString>("path");
    QTest::newRow("drive root") << "C:/"
                                << "C:\\Tandemo";
    QTest::newRow("folder") << "D:/Apps"
                            << "D:\\Apps\\Tandemo";
    QTest::newRow("trailing separator") << "D:/Apps/"
                                        << "D:\\Apps\\Tandemo";
    QTest::newRow("forward slashes only") << "/opt/corvalen"
                                          << "\\opt\\corvalen\\Tandemo";
    QTest::newRow("doubled separators") << "D://Apps//x"
                                        << "D:\\Apps\\x\\Tandemo";
    QTest::newRow("network share keeps no double") << "//server/share"
                                                   << "\\server\\share\\Tandemo";
    QTest::newRow("many separators: three passes only") << "D:////////////////x"
                                                        << "D:\\\\x\\Tandemo";
}

void tst_MainForm::browsedPath()
{
    QFETCH(QString, chosen);
    QFETCH(QString, path);
    QCOMPARE(InstallLogic::browsedInstallPath(chosen), path);
}

void tst_MainForm::diskSpace()
{
    MainForm form;
    form.show();
    form.setInstallPath("D:\\Missing\\Tandemo", true);
    form.setDiskSpace(1500, -1);
    QCOMPARE(child<QLabel>(&form, "lblSpace")->text(), QString("所需空间：1500MB 可用空间：-1MB"));
    QCOMPARE(toastText(), QString("发生意外。您选择的目录[D:\\Missing\\Tandemo]不存在，请重试。"));
    form.setDiskSpace(4294967295u, 2147483647);
    QCOMPARE(child<QLabel>(&form, "lblSpace")->text(),
             QString("所需空间：4294967295MB 可用空间：2147483647MB"));
    // An empty path from the engine leaves the field as it is.
    form.setInstallPath(QString(), false);
    QCOMPARE(child<QLineEdit>(&form, "txtPath")->text(), QString("D:\\Missing\\Tandemo"));
}

void tst_MainForm::refusals_data()
{
    QTest::addColumn<bool>("checked");
    QTest::addColumn<int>("available");
    QTest::addColumn<uint>("required");
    QTest::addColumn<bool>("writable");
    QTest::addColumn<QString>("notice");
    const QString agreement = "请选阅读并同意《服务协议》和《隐私政策》";
    const QString missing = "发生意外。您选择的目录[D:\\x\\Tandemo]不存在，请重试。";
    const QString space = "磁盘空间不足。请先清理磁盘，或选择另一个磁盘。";
    const QString permission = "您选择的安装目录没有写权限，请选择其他安装目录。";
    // Every combination of the four conditions: the first failing check in order wins.
    for (int mask = 0; mask < 16; ++mask) {
        const bool checked = !(mask & 1);
        const bool isMissing = mask & 2;
        const bool noSpace = mask & 4;
        const bool readOnly = mask & 8;
        QString notice = !checked    ? agreement
                         : isMissing ? missing
                         : noSpace   ? space
                         : readOnly  ? permission
                                     : QString();
        QTest::addRow("%s%s%s%s", checked ? "" : "unticked ", isMissing ? "missing " : "",
                      noSpace ? "full " : "", readOnly ? "read-only" : "")
            << checked
            << (isMissing ? -1
                : noSpace ? 1500
                          : 10000)
            << 1500u << !readOnly << notice;
    }
    QTest::newRow("equal figures refuse") << true << 1500 << 1500u << true << space;
    QTest::newRow("no figures yet") << true << 0 << 0u << true << space;
    QTest::newRow("huge requirement compared unsigned")
        << true << 10000 << 4294967295u << true << space;
}

void tst_MainForm::refusals()
{
    QFETCH(bool, checked);
    QFETCH(int, available);
    QFETCH(uint, required);
    QFETCH(bool, writable);
    QFETCH(QString, notice);
    m_fake.processes = {};
    MainForm form;
    form.setIPCForm(m_ipc);
    form.show();
    form.setInstallPath("D:\\x\\Tandemo", writable);
    form.setDiskSpace(required, available);
    hideToasts();
    if (checked)
        child<QPushButton>(&form, "btnChkbox")->click();
    child<QPushButton>(&form, "btnInstall")->click();
    if (notice.isEmpty()) {
        QTRY_VERIFY(child(&form, "lblInstalling")->isVisible());
        QCOMPARE(m_fake.posted.size(), size_t(1));
        QCOMPARE(m_fake.posted[0].message, WM_INSTALL_PATH);
        QCOMPARE(m_fake.posted[0].wParam, 1u);
    } else {
        QCOMPARE(toastText(), notice);
        QTest::qWait(50);
        QVERIFY(m_fake.posted.empty());
        QVERIFY(child(&form, "btnInstall")->isVisible());
    }
}

void tst_MainForm::runningApplication_data()
{
    QTest::addColumn<std::vector<os::ProcessEntry>>("processes");
    QTest::addColumn<QString>("answer"); // empty: no question expected
    QTest::addColumn<std::vector<os::ProcessId>>("killed");
    QTest::addColumn<bool>("starts");
    using P = std::vector<os::ProcessEntry>;
    using K = std::vector<os::ProcessId>;
    const P suite{{5, "Ferrilog.exe"}, {1, "tandemo.exe"},    {2, "Skeinpad.exe"},
                  {3, "Tandemo.exe"},  {4, "TandemoSvc.exe"}, {6, "Lumaslate.exe"}};
    QTest::newRow("not running") << P{{2, "Skeinpad.exe"}} << "" << K{} << true;
    QTest::newRow("running, declined") << suite << "btnCancel" << K{} << false;
    QTest::newRow("running, closed box") << suite << "btnClose" << K{} << false;
    // One of each name, in list order, the first in snapshot order for "Tandemo.exe".
    QTest::newRow("running, agreed") << suite << "btnOK" << K{1, 2, 6, 5, 4} << true;
}

void tst_MainForm::runningApplication()
{
    QFETCH(std::vector<os::ProcessEntry>, processes);
    QFETCH(QString, answer);
    QFETCH(std::vector<os::ProcessId>, killed);
    QFETCH(bool, starts);
    m_fake.processes = processes;
    MainForm form;
    readyToInstall(form);
    QString asked;
    if (!answer.isEmpty())
        answerNextBox(answer, &asked);
    child<QPushButton>(&form, "btnInstall")->click();
    if (starts)
        QTRY_VERIFY(child(&form, "lblInstalling")->isVisible());
    else
        QTRY_VERIFY(!asked.isEmpty());
    QTest::qWait(50);
    if (!answer.isEmpty())
        QCOMPARE(asked, QString("系统正在运行，是否关闭应用后继续安装？"));
    QCOMPARE(m_fake.terminated, killed);
    QCOMPARE(m_fake.posted.size(), size_t(starts ? 1 : 0));
    QCOMPARE(child(&form, "btnInstall")->isVisible(), !starts);
}

void tst_MainForm::checkMeetsCloseQuestion_data()
{
    QTest::addColumn<QString>("answer");
    QTest::addColumn<bool>("starts");
    QTest::newRow("stays: the held result starts the install") << "btnCancel" << true;
    QTest::newRow("quits: the held result is dropped") << "btnOK" << false;
}

void tst_MainForm::checkMeetsCloseQuestion()
{
    QFETCH(QString, answer);
    QFETCH(bool, starts);
    MainForm form;
    readyToInstall(form);
    // The question opens right after the press, so the check ends and its result is delivered
    // inside the close question's loop; quitting ends the outer loop a second later, staying is
    // ended here.
    bool installedBehindQuestion = true;
    const auto answerAfterTheCheck = [&] {
        QThreadPool::globalInstance()->waitForDone();
        QTest::qWait(50);
        installedBehindQuestion =
            child(&form, "lblInstalling")->isVisible() || !m_fake.posted.empty();
        QApplication::activeModalWidget()->findChild<QPushButton *>(answer)->click();
    };
    QTimer::singleShot(0, [&] {
        child<QPushButton>(&form, "btnInstall")->click();
        QTimer::singleShot(0, answerAfterTheCheck);
        child<QPushButton>(&form, "btnClose")->click();
        if (starts)
            QCoreApplication::exit(0);
    });
    QTimer fallback;
    connect(&fallback, &QTimer::timeout, [] { QCoreApplication::exit(3); });
    fallback.start(10000);
    QCOMPARE(QCoreApplication::exec(), 0);
    QVERIFY(!installedBehindQuestion);
    QTest::qWait(50);
    QCOMPARE(child(&form, "lblInstalling")->isVisible(), starts);
    QCOMPARE(m_fake.posted.size(), size_t(1));
    QCOMPARE(m_fake.posted.front().message,
             std::uint32_t(starts ? WM_INSTALL_PATH : WM_CANCEL_INSTALL));
}

void tst_MainForm::destructionWaitsForEveryCheck()
{
    {
        MainForm form;
        readyToInstall(form);
        m_fake.snapshotDelayMs.value = 600;
        child<QPushButton>(&form, "btnInstall")->click();
        QTRY_COMPARE(m_fake.snapshotCalls.value.load(), 1);
        m_fake.snapshotDelayMs.value = 0;
        child<QPushButton>(&form, "btnInstall")->click(); // supersedes the slow check
    }
    QCOMPARE(m_fake.snapshotsDone.value.load(), 2); // the superseded slow one too
}

void tst_MainForm::progressWidth_data()
{
    QTest::addColumn<int>("progress");
    QTest::addColumn<int>("width");
    QTest::newRow("0") << 0 << 16;
    QTest::newRow("4") << 4 << 16;
    QTest::newRow("5") << 5 << 19;
    QTest::newRow("50") << 50 << 190;
    QTest::newRow("99") << 99 << 376;
    QTest::newRow("100") << 100 << 380;
    QTest::newRow("negative") << -20 << 16;
    QTest::newRow("negative, past 32 bits") << -5651475 << 16;
    QTest::newRow("most negative") << std::numeric_limits<int>::min() << 16;
    QTest::newRow("huge, past 32 bits") << 6000000 << 22800000;
}

void tst_MainForm::progressWidth()
{
    QFETCH(int, progress);
    QFETCH(int, width);
    QCOMPARE(InstallLogic::progressBarWidth(380, progress), width);
}

void tst_MainForm::progressAndCompletion()
{
    MainForm form;
    form.setIPCForm(m_ipc);
    form.show();
    form.startInstallWithoutAgreement();
    auto *fg = child(&form, "lblProgressFg");
    QCOMPARE(fg->width(), 16);
    form.setProgress(50);
    QTRY_COMPARE(fg->width(), 190);
    form.setProgress(99);
    QTRY_COMPARE(fg->width(), 376);
    QTest::qWait(300);
    QVERIFY(child(&form, "lblProgressBg")->isVisible()); // 99 stays on the installing page
    form.setProgress(150);                               // stored as 100
    QTRY_COMPARE(fg->width(), 380);
    QTRY_VERIFY(child(&form, "btnStartup")->isVisible());
    QCOMPARE(child<QLabel>(&form, "lblInstalling")->text(), QString("安装完成"));
    QVERIFY(!child(&form, "lblProgressBg")->isVisible());
    QVERIFY(!fg->isVisible());
    QCOMPARE(form.size(), QSize(476, 346));
    QCOMPARE(child<QLabel>(&form, "lblLogo")->pixmap(Qt::ReturnByValue).toImage(),
             QPixmap(":/images/completed@2x.png").toImage());
    form.setProgress(10); // completed: ignored
    QCOMPARE(fg->width(), 380);
}

void tst_MainForm::progressOutsideInstallingIsIgnored()
{
    MainForm form;
    form.show();
    form.setProgress(60);
    form.startInstallWithoutAgreement();
    QTest::qWait(250);
    QCOMPARE(child(&form, "lblProgressFg")->width(), 16);
    form.setProgress(-5);
    QTest::qWait(250);
    QCOMPARE(child(&form, "lblProgressFg")->width(), 16);
}

void tst_MainForm::closeQuestion()
{
    MainForm form;
    form.setIPCForm(m_ipc);
    form.show();
    QString asked;
    answerNextBox("btnCancel", &asked);
    child<QPushButton>(&form, "btnClose")->click();
    QCOMPARE(asked, QString("确定退出安装吗？"));
    QVERIFY(m_fake.posted.empty());
    QVERIFY(form.isVisible());

    // Escape asks the same question instead of hiding the window.
    asked.clear();
    answerNextBox("btnCancel", &asked);
    QTest::keyClick(&form, Qt::Key_Escape);
    QCOMPARE(asked, QString("确定退出安装吗？"));
    QVERIFY(form.isVisible());

    answerNextBox("btnOK");
    QTimer::singleShot(0, [&] { child<QPushButton>(&form, "btnClose")->click(); });
    QTimer fallback;
    connect(&fallback, &QTimer::timeout, [] { QCoreApplication::exit(3); });
    fallback.start(10000);
    QCOMPARE(QCoreApplication::exec(), 0);
    QCOMPARE(m_fake.posted.size(), size_t(1));
    QCOMPARE(m_fake.posted[0].message, WM_CANCEL_INSTALL);
}

void tst_MainForm::closeWhenCompleted()
{
    MainForm form;
    form.setIPCForm(m_ipc);
    form.show();
    form.startInstallWithoutAgreement();
    m_fake.posted.clear();
    form.setProgress(100);
    QTRY_VERIFY(child(&form, "btnStartup")->isVisible());
    QTimer::singleShot(0, [&] { child<QPushButton>(&form, "btnClose")->click(); });
    QTimer fallback;
    connect(&fallback, &QTimer::timeout, [] { QCoreApplication::exit(3); });
    fallback.start(10000);
    QCOMPARE(QCoreApplication::exec(), 0);
    QVERIFY(m_fake.posted.empty()); // no question, nothing sent
}

void tst_MainForm::agreementLinks()
{
    UrlCatcher catcher;
    QDesktopServices::setUrlHandler("https", &catcher, "open");
    MainForm form;
    child<QPushButton>(&form, "btnService")->click();
    child<QPushButton>(&form, "btnPrivate")->click();
    QDesktopServices::unsetUrlHandler("https");
    QCOMPARE(catcher.urls.size(), 2);
    QCOMPARE(catcher.urls[0].query(), QString("hideHeader=1&h5Preset=PC"));
    QCOMPARE(catcher.urls[0].fragment(), QString("263"));
    QCOMPARE(catcher.urls[1].fragment(), QString("199"));
    QCOMPARE(catcher.urls[0].adjusted(QUrl::RemoveFragment),
             catcher.urls[1].adjusted(QUrl::RemoveFragment));
}

void tst_MainForm::withoutAgreement()
{
    m_fake.processes = {{1, "Tandemo.exe"}, {2, "TandemoSvc.exe"}};
    MainForm form;
    form.setIPCForm(m_ipc);
    form.show();
    form.startInstallWithoutAgreement();
    QCOMPARE(m_fake.terminated, std::vector<os::ProcessId>({1, 2}));
    QCOMPARE(m_fake.posted.size(), size_t(1));
    QCOMPARE(m_fake.posted[0].wParam, 1u);
    QVERIFY(child(&form, "lblInstalling")->isVisible());
}

void tst_MainForm::look()
{
    MainForm form;
    form.show();
    QVERIFY(QTest::qWaitForWindowExposed(&form));
    QImage image = form.grab().toImage();
    const QRgb blue = QColor("#5998FF").rgb();
    // Inside the install button, the white backing, the transparent margin.
    QCOMPARE(QColor(image.pixel(8 + 190, 8 + 200)).rgb(), blue);
    QCOMPARE(QColor(image.pixel(8 + 30, 8 + 30)).rgb(), QColor(Qt::white).rgb());
    QVERIFY(qAlpha(image.pixel(1, 1)) < 40);
    child<QPushButton>(&form, "btnMore0")->click();
    image = form.grab().toImage();
    QCOMPARE(image.size(), QSize(476, 426));
    // The browse button's grey border below the fold.
    QCOMPARE(QColor(image.pixel(8 + 360, 8 + 345)).rgb(), QColor("#E0E0E0").rgb());
}

QTEST_MAIN(tst_MainForm)
#include "tst_mainform.moc"
