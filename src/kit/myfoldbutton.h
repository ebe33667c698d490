#pragma once

#include <QPushButton>

// Two-state button for the options fold: its own boolean, announced on every set and on
// hover enter/leave.
class MyFoldButton final : public QPushButton
{
    Q_OBJECT
    Q_DISABLE_COPY_MOVE(MyFoldButton)

public:
    explicit MyFoldButton(QWidget *parent = nullptr);

    bool getFoldState() const { return m_bFolded; }
    void setFoldState(bool bFolded);

    void setGeometry(const QRect &rect);
    void setGeometry(int x, int y, int w, int h) { setGeometry(QRect(x, y, w, h)); }
    void resize(int w, int h);

signals:
    void sgFoldState(bool bFolded);

protected:
    bool event(QEvent *e) override;

private:
    bool m_bFolded = true;
};
