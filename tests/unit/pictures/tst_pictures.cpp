// Every window state a person sees, grabbed offscreen at scale 1 and compared with a reviewed
// reference picture. scripts/update-references.sh rewrites the references on purpose.
#include <QtTest>

#include "app/global.h"
#include "fakeplatform.h"
#include "kit/fonts.h"
#include "kit/mymsgbox.h"
#include "kit/toast.h"
#include "loading/widget.h"
#include "mainform/mainform.h"
#include "uitest.h"

#include <functional>
#include <memory>

namespace {

const QString kReferences = CORVALEN_REFERENCE_DIR;
constexpr int kTolerance = 8; // per channel: room for rounding, none for a changed colour

// A widget in the state to picture, and what keeps it alive until it is grabbed.
using Scene = std::function<QImage()>;

QImage grabShown(QWidget &w)
{
    w.show();
    if (!QTest::qWaitForWindowExposed(&w))
        return QImage();
    return w.grab().toImage().convertToFormat(QImage::Format_ARGB32);
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
    struct TickGrab : QObject
    {
        Widget *w;
        QImage *shot;
        bool eventFilter(QObject *, QEvent *e) override
        {
            if (e->type() == QEvent::Timer && shot->isNull())
                *shot = w->grab().toImage().convertToFormat(QImage::Format_ARGB32);
            return false;
        }
    } filter;
    filter.w = &w;
    filter.shot = &shot;
    w.installEventFilter(&filter);
    w.init();
    return QTest::qWaitFor([&] { return !shot.isNull(); }, 5000) ? shot : QImage();
}

// Marks in red, on a faded copy of the reference, every pixel off by more than the tolerance.
int compare(const QImage &actual, const QImage &reference, QImage &diff)
{
    diff = reference.convertToFormat(QImage::Format_ARGB32);
    int differing = 0;
    for (int y = 0; y < reference.height(); ++y)
        for (int x = 0; x < reference.width(); ++x) {
            const QRgb a = actual.pixel(x, y), r = reference.pixel(x, y);
            const bool off =
                qAbs(qRed(a) - qRed(r)) > kTolerance || qAbs(qGreen(a) - qGreen(r)) > kTolerance ||
                qAbs(qBlue(a) - qBlue(r)) > kTolerance || qAbs(qAlpha(a) - qAlpha(r)) > kTolerance;
            const int g = 128 + qGray(r) / 2;
            diff.setPixel(x, y, off ? qRgb(255, 0, 0) : qRgb(g, g, g));
            differing += off;
        }
    return differing;
}

} // namespace

Q_DECLARE_METATYPE(Scene)

class tst_Pictures : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase()
    {
        installFontSubstitutions();
        os::setPlatform(&m_fake);
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
        const auto hover = [](QWidget *w) {
            QHoverEvent e(QEvent::HoverEnter, QPointF(1, 1), QPointF(-1, -1));
            QCoreApplication::sendEvent(w, &e);
        };
        QTest::newRow("loading") << Scene(loading);
        // Unfolded and folded again: one shadow, not two.
        QTest::newRow("choice") << Scene([=] {
            return mainForm([=](MainForm &f) {
                more(f);
                more(f);
            });
        });
        // Every hover look at once: the fold pair, the buttons, the path field.
        QTest::newRow("choice-unfolded-hovered") << Scene([=] {
            return mainForm([=](MainForm &f) {
                more(f);
                for (const char *name : {"btnMore1", "btnInstall", "btnBrowserPath", "txtPath"})
                    hover(child(&f, name));
            });
        });
        QTest::newRow("choice-ticked-browse-disabled") << Scene([=] {
            Global::SetDisableChoosePath(true);
            return mainForm([=](MainForm &f) {
                more(f);
                child<QPushButton>(&f, "btnChkbox")->click();
            });
        });
        QTest::newRow("installing-50") << Scene([] {
            Global::SetSelfTest(false); // no simulated progress moving the bar
            return mainForm([](MainForm &f) {
                f.startInstallWithoutAgreement();
                f.setProgress(50);
                QTRY_COMPARE(child(&f, "lblProgressFg")->width(), 190);
            });
        });
        QTest::newRow("completed") << Scene([] {
            Global::SetSelfTest(false);
            return mainForm([](MainForm &f) {
                f.startInstallWithoutAgreement();
                f.setProgress(100);
                QTRY_VERIFY_WITH_TIMEOUT(child(&f, "btnStartup")->isVisible(), 5000);
            });
        });
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
        const QImage actual = scene();
        QVERIFY(!actual.isNull());
        const QString name = QTest::currentDataTag();
        const QString referencePath = kReferences + "/" + name + ".png";
        if (qEnvironmentVariableIsSet("CORVALEN_UPDATE_REFERENCES")) {
            QVERIFY(actual.save(referencePath));
            return;
        }
        const QImage reference(referencePath);
        QVERIFY2(!reference.isNull(), qPrintable("no reference " + referencePath));
        const QString out = QDir::currentPath() + "/" + name;
        QImage diff;
        const int differing =
            actual.size() == reference.size() ? compare(actual, reference, diff) : -1;
        if (differing)
            actual.save(out + "-actual.png") && (differing < 0 || diff.save(out + "-diff.png"));
        QVERIFY2(differing >= 0,
                 qPrintable(QString("%1x%2, the reference is %3x%4; see %5-actual.png")
                                .arg(actual.width())
                                .arg(actual.height())
                                .arg(reference.width())
                                .arg(reference.height())
                                .arg(out)));
        QVERIFY2(differing == 0,
                 qPrintable(QString("%1 pixels differ; see %2-diff.png, %2-actual.png")
                                .arg(differing)
                                .arg(out)));
    }

private:
    FakePlatform m_fake;
};

QTEST_MAIN(tst_Pictures)
#include "tst_pictures.moc"
