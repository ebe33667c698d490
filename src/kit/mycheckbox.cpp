#include "kit/mycheckbox.h"

#include "kit/accessibility.h"

void MyCheckBox::announce(bool bChecked, bool bChanged)
{
    emit sgClicked(bChecked);
    if (bChanged)
        Accessibility::announceChecked(this);
}
