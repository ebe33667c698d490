#pragma once

#include <QPushButton>

// A button holding one boolean, flipped by every click and announced again on hover, so the
// owner re-polishes and the :hover image follows. Its icon is as large as the button.
class TwoStateButton : public QPushButton
{
    Q_DISABLE_COPY_MOVE(TwoStateButton)

public:
    void setGeometry(const QRect &rect);
    void setGeometry(int x, int y, int w, int h) { setGeometry(QRect(x, y, w, h)); }
    void resize(int w, int h);

protected:
    TwoStateButton(bool bInitial, QWidget *parent);

    bool state() const { return m_bState; }
    void setState(bool bState);
    bool event(QEvent *e) override;

private:
    // Emits the subclass's own signal.
    virtual void announce(bool bState, bool bChanged) = 0;

    bool m_bState;
};
