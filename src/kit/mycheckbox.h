#pragma once

#include "kit/twostatebutton.h"

// The agreement check box.
class MyCheckBox final : public TwoStateButton
{
    Q_OBJECT
    Q_DISABLE_COPY_MOVE(MyCheckBox)

public:
    explicit MyCheckBox(QWidget *parent = nullptr) : TwoStateButton(false, parent) {}

    bool getCheckState() const { return state(); }
    void setCheckState(bool bChecked) { setState(bChecked); }

signals:
    void sgClicked(bool bChecked);

private:
    void announce(bool bChecked, bool bChanged) override;
};
