#include "loading/progresstext.h"

QString progressText(unsigned int iProgress)
{
    return QString("进度：") + QString("%1%").arg(iProgress);
}
