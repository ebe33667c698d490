// Every window state a person sees, grabbed offscreen at scale 1 and compared with a reviewed
// reference picture. scripts/update-references.sh rewrites the references on purpose.
#include "unittest.h"

#include "kit/fonts.h"
#include "kit/mymsgbox.h"
#include "kit/toast.h"
#include "loading/widget.h"
#include "mainform/mainform.h"

namespace {

using Scene = std::function<QImage()>;

QImage grabShown(QWidget &w)
{
    w.show();
    return QTest::qWaitForWindowExposed(&w) ? w.grab().toImage() : QImage();
}

QImage mainForm(const std::function<void(MainForm &)> &prepare)
{
    MainForm form;
    form.show();
    prepare(form);
    return grabShown(form);
}

QImage messageBox(const QString &line, bool cancel)
{
    MyMsgBox box;
    box.setButtonsVisible(cancel, true);
    box.setLines(line, QString());
    return grabShown(box);
}

// The loading window as its first animation tick finds it.
QImage loading()
{
    Widget w;
    QImage shot;
    EventHook hook(&w, [&](QEvent *e) {
        if (e->type() == QEvent::Timer && shot.isNull())
            shot = w.grab().toImage();
    });
    w.init();
    return QTest::qWaitFor([&] { return !shot.isNull(); }, 5000) ? shot : QImage();
}

} // namespace

Q_DECLARE_METATYPE(Scene)

class tst_Pictures : public QObject
{
    Q_OBJECT
    FakePlatform f;

private slots:
    void initTestCase()
    {
        installFontSubstitutions();
        Global::SetVersionNew("3.0.0.5");
        Global::SetVersionOld("0.0.0.0");
    }
    void init()
    {
        Global::SetSelfTest(true);
        Global::SetDisableChoosePath(false);
    }
    void window_data()
    {
        QTest::addColumn<Scene>("scene");
        const auto more = [](MainForm &f) { child<QPushButton>(&f, "btnMore0")->click(); };
        const auto installing = [](int progress) {
            Global::SetSelfTest(false); // no simulated progress moving the bar
            return mainForm([=](MainForm &f) {
                f.startInstallWithoutAgreement();
                f.setProgress(progress);
                QTRY_COMPARE_WITH_TIMEOUT(child(&f, "lblProgressFg")->width(), progress * 19 / 5,
                                          5000);
                QTRY_VERIFY_WITH_TIMEOUT(progress < 100 || child(&f, "btnStartup")->isVisible(),
                                         5000);
            });
        };
        QTest::newRow("loading") << Scene(loading);
        // Unfolded and folded again: one shadow, not two.
        QTest::newRow("choice") << Scene(
            [=] { return mainForm([=](MainForm &f) { more(f), more(f); }); });
        // Every hover look at once: the fold pair, the buttons, the path field.
        QTest::newRow("choice-unfolded-hovered") << Scene([=] {
            return mainForm([=](MainForm &f) {
                more(f);
                for (const char *name : {"btnMore1", "btnInstall", "btnBrowserPath", "txtPath"}) {
                    QHoverEvent e(QEvent::HoverEnter, QPointF(1, 1), QPointF(-1, -1));
                    QCoreApplication::sendEvent(child(&f, name), &e);
                }
            });
        });
        QTest::newRow("choice-ticked-browse-disabled") << Scene([=] {
            Global::SetDisableChoosePath(true);
            return mainForm([=](MainForm &f) {
                more(f);
                child<QPushButton>(&f, "btnChkbox")->click();
            });
        });
        QTest::newRow("installing-50") << Scene([=] { return installing(50); });
        QTest::newRow("completed") << Scene([=] { return installing(100); });
        QTest::newRow("close-question")
            << Scene([] { return messageBox("确定退出安装吗？", true); });
        QTest::newRow("overwrite-question") << Scene([] {
            return messageBox("该版本已安装，继续安装会覆盖原先的版本，是否继续安装？", true);
        });
        QTest::newRow("higher-version-refusal") << Scene([] {
            return messageBox("已安装高版本V3.1.0.0，如果要安装当前版本，请先卸载高版本。", false);
        });
        QTest::newRow("toast") << Scene([] {
            Toast toast;
            toast.showToast("磁盘空间不足。请先清理磁盘，或选择另一个磁盘。", 3000);
            return grabShown(toast);
        });
    }

    void window()
    {
        QFETCH(Scene, scene);
        const QImage actual = scene().convertToFormat(QImage::Format_ARGB32);
        QVERIFY(!actual.isNull());
        const QString name = QTest::currentDataTag(), out = QDir::currentPath() + "/" + name;
        const QString path = QString(CORVALEN_REFERENCE_DIR) + "/" + name + ".png";
        if (qEnvironmentVariableIsSet("CORVALEN_UPDATE_REFERENCES"))
            QVERIFY(actual.save(path));
        QImage diff = QImage(path).convertToFormat(QImage::Format_ARGB32);
        QVERIFY2(!diff.isNull(), qPrintable("no reference " + path));
        // Marks in red, on a faded copy of the reference, every pixel off by more than 8 in a
        // channel: room for rounding, none for a changed colour.
        int differing = actual.size() == diff.size() ? 0 : -1;
        for (int y = 0; y < diff.height() && differing >= 0; ++y)
            for (int x = 0; x < diff.width(); ++x) {
                const bool off = channelDifference(actual.pixel(x, y), diff.pixel(x, y)) > 8;
                const int g = 128 + qGray(diff.pixel(x, y)) / 2;
                diff.setPixel(x, y, off ? qRgb(255, 0, 0) : qRgb(g, g, g));
                differing += off;
            }
        if (differing)
            actual.save(out + "-actual.png") && (differing < 0 || diff.save(out + "-diff.png"));
        QVERIFY2(differing == 0, qPrintable(QString("%1 pixels differ (-1: the size, %2x%3); see "
                                                    "%4-diff.png, %4-actual.png")
                                                .arg(differing)
                                                .arg(actual.width())
                                                .arg(actual.height())
                                                .arg(out)));
    }
};

QTEST_MAIN(tst_Pictures)
#include "tst_pictures.moc"
