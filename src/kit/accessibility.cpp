#include "kit/accessibility.h"

#include "kit/mycheckbox.h"

#include <QAbstractButton>
#include <QAccessible>
#include <QAccessibleWidget>
#include <QLabel>
#include <QVariant>

namespace {

const char kRole[] = "accessibleRole";
const char kExpanded[] = "accessibleExpanded";
const char kValue[] = "accessibleValue";

// A button as a check box, a link or a button that folds part of the window out.
class Button final : public QAccessibleWidget
{
public:
    Button(QWidget *widget, QAccessible::Role role) : QAccessibleWidget(widget, role) {}

    QAbstractButton *button() const { return static_cast<QAbstractButton *>(widget()); }

    QString text(QAccessible::Text t) const override
    {
        const QString own = QAccessibleWidget::text(t);
        return t == QAccessible::Name && own.isEmpty() ? button()->text() : own;
    }

    QAccessible::State state() const override
    {
        QAccessible::State s = QAccessibleWidget::state();
        if (const auto *box = qobject_cast<const MyCheckBox *>(widget())) {
            s.checkable = true;
            s.checked = box->getCheckState();
        }
        const QVariant expanded = widget()->property(kExpanded);
        if (expanded.isValid()) {
            s.expandable = true;
            s.expanded = expanded.toBool();
            s.collapsed = !expanded.toBool();
        }
        return s;
    }

    QStringList actionNames() const override
    {
        return QStringList(role() == QAccessible::CheckBox ? toggleAction() : pressAction()) +
               QAccessibleWidget::actionNames();
    }

    void doAction(const QString &action) override
    {
        if (action == pressAction() || action == toggleAction())
            button()->click();
        else
            QAccessibleWidget::doAction(action);
    }
};

class ProgressBar final : public QAccessibleWidget, public QAccessibleValueInterface
{
public:
    explicit ProgressBar(QWidget *widget) : QAccessibleWidget(widget, QAccessible::ProgressBar) {}

    void *interface_cast(QAccessible::InterfaceType t) override
    {
        return t == QAccessible::ValueInterface ? static_cast<QAccessibleValueInterface *>(this)
                                                : QAccessibleWidget::interface_cast(t);
    }
    QString text(QAccessible::Text t) const override
    {
        return t == QAccessible::Value ? currentValue().toString() + "%"
                                       : QAccessibleWidget::text(t);
    }
    QVariant currentValue() const override { return widget()->property(kValue).toInt(); }
    void setCurrentValue(const QVariant &) override {}
    QVariant maximumValue() const override { return 100; }
    QVariant minimumValue() const override { return 0; }
    QVariant minimumStepSize() const override { return 1; }
};

// The toast: an alert whose name is what it says.
class Alert final : public QAccessibleWidget
{
public:
    explicit Alert(QWidget *widget) : QAccessibleWidget(widget, QAccessible::AlertMessage) {}

    QString text(QAccessible::Text t) const override
    {
        if (t != QAccessible::Name)
            return QAccessibleWidget::text(t);
        const QLabel *label = widget()->findChild<QLabel *>();
        return label ? label->text() : QString();
    }
};

QAccessibleInterface *factory(const QString &className, QObject *object)
{
    auto *widget = qobject_cast<QWidget *>(object);
    if (!widget)
        return nullptr;
    if (className == "MyCheckBox")
        return new Button(widget, QAccessible::CheckBox);
    if (className == "Toast")
        return new Alert(widget);
    const QString role = widget->property(kRole).toString();
    if (role == "link")
        return new Button(widget, QAccessible::Link);
    if (role == "progressbar")
        return new ProgressBar(widget);
    if (widget->property(kExpanded).isValid())
        return new Button(widget, QAccessible::Button);
    return nullptr;
}

// Qt made the widget's interface when the widget was first spoken of, before it was marked: it
// goes, and the next query makes ours.
void remake(QWidget *widget)
{
    if (QAccessibleInterface *made = QAccessible::queryAccessibleInterface(widget))
        QAccessible::deleteAccessibleInterface(QAccessible::uniqueId(made));
}

} // namespace

namespace Accessibility {

void install()
{
    QAccessible::installFactory(factory);
}

void markAsLink(QWidget *button)
{
    button->setProperty(kRole, "link");
    remake(button);
}

void markAsProgressBar(QWidget *label)
{
    label->setProperty(kRole, "progressbar");
    label->setProperty(kValue, 0);
    remake(label);
}

void setExpanded(QWidget *button, bool bExpanded)
{
    const bool marked = button->property(kExpanded).isValid();
    button->setProperty(kExpanded, bExpanded);
    if (!marked)
        remake(button);
    QAccessible::State changed;
    changed.expanded = changed.collapsed = true;
    QAccessibleStateChangeEvent event(button, changed);
    QAccessible::updateAccessibility(&event);
}

void announceValue(QWidget *progressBar, int iValue)
{
    if (progressBar->property(kValue).toInt() == iValue)
        return;
    progressBar->setProperty(kValue, iValue);
    QAccessibleValueChangeEvent event(progressBar, iValue);
    QAccessible::updateAccessibility(&event);
}

void announceChecked(QWidget *checkBox)
{
    QAccessible::State changed;
    changed.checked = true;
    QAccessibleStateChangeEvent event(checkBox, changed);
    QAccessible::updateAccessibility(&event);
}

void announceAlert(QWidget *alert)
{
    QAccessibleEvent event(alert, QAccessible::Alert);
    QAccessible::updateAccessibility(&event);
}

} // namespace Accessibility
