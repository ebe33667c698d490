#pragma once

#include <QHash>
#include <QWidget>

// The keyboard's focus in the design's own look: a ring in the window's blue around the focused
// control. It shows once the focus is moved with the keyboard, and goes at a mouse press, so that
// a mouse user never sees it. Qt's own focus frames are never drawn (installStyle).
class FocusRing final : public QWidget
{
    Q_OBJECT
    Q_DISABLE_COPY_MOVE(FocusRing)

public:
    // Follows the focus inside `window`, drawn on `surface`, the window's content frame.
    FocusRing(QWidget *window, QWidget *surface);
    ~FocusRing() override;

    // The ring around `control` takes `companion` in too (a text and its arrow: one stop).
    void addCompanion(QWidget *control, QWidget *companion);

    // Qt's focus frames off, for the whole application; before the first window is made.
    static void installStyle();

protected:
    bool eventFilter(QObject *watched, QEvent *event) override;
    void paintEvent(QPaintEvent *event) override;

private:
    void follow();

    QWidget *m_pWindow;
    bool m_bKeyboard = false;
    QHash<QWidget *, QWidget *> m_companions;
};
