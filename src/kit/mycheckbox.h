#pragma once

#include <QPushButton>

// Two-state button: its own boolean, announced on every set and on hover enter/leave.
class MyCheckBox final : public QPushButton
{
    Q_OBJECT
    Q_DISABLE_COPY_MOVE(MyCheckBox)

public:
    explicit MyCheckBox(QWidget *parent = nullptr);

    bool getCheckState() const { return m_bChecked; }
    void setCheckState(bool bChecked);

    void setGeometry(const QRect &rect);
    void setGeometry(int x, int y, int w, int h) { setGeometry(QRect(x, y, w, h)); }
    void resize(int w, int h);

signals:
    void sgClicked(bool bChecked);

protected:
    bool event(QEvent *e) override;

private:
    bool m_bChecked = false;
};
