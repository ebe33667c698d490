#pragma once

#include <QPushButton>

// Push button that swaps a normal and a hover style sheet.
class MyPushButton final : public QPushButton
{
    Q_OBJECT
    Q_DISABLE_COPY_MOVE(MyPushButton)

public:
    explicit MyPushButton(QWidget *parent = nullptr);

    void setNormalStyle(const QString &style);
    void setHoverStyle(const QString &style);

    // Also set the icon size to the new size.
    void setGeometry(const QRect &rect);
    void setGeometry(int x, int y, int w, int h) { setGeometry(QRect(x, y, w, h)); }
    void resize(int w, int h);

protected:
    bool event(QEvent *e) override;

private:
    QString m_strNormalStyle;
    QString m_strHoverStyle;
};
