#pragma once

#include <QLineEdit>

// Line edit that swaps a normal and a hover style sheet.
class MyLineEdit final : public QLineEdit
{
    Q_OBJECT
    Q_DISABLE_COPY_MOVE(MyLineEdit)

public:
    explicit MyLineEdit(QWidget *parent = nullptr);

    void setNormalStyle(const QString &style);
    void setHoverStyle(const QString &style);

protected:
    bool event(QEvent *e) override;

private:
    QString m_strNormalStyle;
    QString m_strHoverStyle;
};
