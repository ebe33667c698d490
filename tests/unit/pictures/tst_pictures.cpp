// Every window state a person sees, grabbed offscreen at scale 1 and compared with a reviewed
// reference picture. scripts/update-references.sh rewrites the references on purpose.
#include "widgethelpers.h"

#include "kit/focusring.h"
#include "kit/fonts.h"
#include "kit/mymsgbox.h"
#include "kit/toast.h"
#include "loading/widget.h"
#include "mainform/mainform.h"

using Scene = std::function<QImage()>;
Q_DECLARE_METATYPE(Scene)

static QImage grabShown(QWidget &w)
{
    w.show();
    return QTest::qWaitForWindowExposed(&w) ? w.grab().toImage() : QImage();
}

class tst_Pictures : public QObject
{
    Q_OBJECT
    FakePlatform f;

private slots:
    void initTestCase()
    {
        installFontSubstitutions();
        FocusRing::installStyle();
        Global::SetVersionNew("3.0.0.5");
    }
    void window_data()
    {
        QTest::addColumn<Scene>("scene");
        // Outside self-test no simulated progress moves the bar.
        const auto form = [](bool selfTest, bool fixedPath,
                             std::function<void(MainForm &)> prepare) {
            return Scene([=] {
                Global::SetSelfTest(selfTest);
                Global::SetDisableChoosePath(fixedPath);
                MainForm form;
                form.show();
                prepare(form);
                return grabShown(form);
            });
        };
        const auto more = [](MainForm &f) { child<QPushButton>(&f, "btnMore0")->click(); };
        const auto progress = [](int percent) {
            return [=](MainForm &f) {
                f.startInstallWithoutAgreement();
                f.setProgress(percent);
                QTRY_COMPARE(child(&f, "lblProgressFg")->width(), percent * 19 / 5);
                QTRY_VERIFY_WITH_TIMEOUT(percent < 100 || child(&f, "btnStartup")->isVisible(),
                                         5000);
            };
        };
        // The loading window as its first animation tick finds it.
        QTest::newRow("loading") << Scene([] {
            Widget w;
            QImage shot;
            EventHook hook(&w, [&](QEvent *e) {
                if (e->type() == QEvent::Timer && shot.isNull())
                    shot = w.grab().toImage();
            });
            w.init();
            return QTest::qWaitFor([&] { return !shot.isNull(); }, 5000) ? shot : QImage();
        });
        // Unfolded and folded again: one shadow, not two.
        QTest::newRow("choice") << form(true, false, [=](MainForm &f) { more(f), more(f); });
        QTest::newRow("choice-unfolded") << form(true, false, more);
        // Every hover look at once: the fold pair, the buttons, the path field.
        QTest::newRow("choice-unfolded-hovered") << form(true, false, [=](MainForm &f) {
            more(f);
            for (const char *name : {"btnMore1", "btnInstall", "btnBrowserPath", "txtPath"}) {
                QHoverEvent e(QEvent::HoverEnter, QPointF(1, 1), QPointF(-1, -1));
                QCoreApplication::sendEvent(child(&f, name), &e);
            }
        });
        QTest::newRow("choice-ticked-browse-disabled") << form(true, true, [=](MainForm &f) {
            more(f);
            child<QPushButton>(&f, "btnChkbox")->click();
        });
        // The keyboard's focus ring: on the agreement box after one Tab, on 更多选项 and its
        // arrow at once after four more.
        const auto tabs = [](int n) {
            return [=](MainForm &f) {
                QApplication::setActiveWindow(&f);
                for (int i = 0; i < n; ++i)
                    QTest::keyClick(QApplication::focusWidget(), Qt::Key_Tab);
                QTest::qWait(50);
            };
        };
        QTest::newRow("choice-focus-agreement") << form(true, false, tabs(1));
        QTest::newRow("choice-focus-options") << form(true, false, tabs(4));
        QTest::newRow("installing-50") << form(false, false, progress(50));
        QTest::newRow("completed") << form(false, false, progress(100));
        const std::tuple<const char *, QString, bool> boxes[] = {
            {"close-question", "确定退出安装吗？", true},
            {"running-question", "系统正在运行，是否关闭应用后继续安装？", true},
            {"overwrite-question", "该版本已安装，继续安装会覆盖原先的版本，是否继续安装？", true},
            {"higher-version-refusal", "已安装高版本V3.1.0.0，如果要安装当前版本，请先卸载高版本。",
             false}};
        for (const auto &[tag, line, cancel] : boxes)
            QTest::newRow(tag) << Scene([line = line, cancel = cancel] {
                MyMsgBox box;
                box.setButtonsVisible(cancel, true);
                box.setLines(line, QString());
                return grabShown(box);
            });
        QTest::newRow("toast") << Scene([] {
            Toast toast;
            toast.showToast("请选阅读并同意《服务协议》和《隐私政策》", 3000);
            return grabShown(toast);
        });
    }

    void window()
    {
        QFETCH(Scene, scene);
        const QImage actual = scene();
        QVERIFY(!actual.isNull());
        const QString name = QTest::currentDataTag();
        const QString path = QString(CORVALEN_REFERENCE_DIR) + "/" + name + ".png";
        if (qEnvironmentVariableIsSet("CORVALEN_UPDATE_REFERENCES"))
            QVERIFY(actual.save(path));
        const QString differs =
            pictureDifference(actual, QImage(path), QDir::currentPath() + "/" + name);
        QVERIFY2(differs.isEmpty(), qPrintable(differs));
    }
};

QTEST_MAIN(tst_Pictures)
#include "tst_pictures.moc"
