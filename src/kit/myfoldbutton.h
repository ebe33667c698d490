#pragma once

#include "kit/twostatebutton.h"

// The arrow of the options fold.
class MyFoldButton final : public TwoStateButton
{
    Q_OBJECT
    Q_DISABLE_COPY_MOVE(MyFoldButton)

public:
    explicit MyFoldButton(QWidget *parent = nullptr) : TwoStateButton(true, parent) {}

    bool getFoldState() const { return state(); }
    void setFoldState(bool bFolded) { setState(bFolded); }

signals:
    void sgFoldState(bool bFolded);

private:
    void announce(bool bFolded, bool) override { emit sgFoldState(bFolded); }
};
