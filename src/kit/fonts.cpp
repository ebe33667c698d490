#include "kit/fonts.h"

#include <QFont>

void installFontSubstitutions()
{
#ifndef Q_OS_WIN
    QFont::insertSubstitution("Microsoft YaHei", "WenQuanYi Micro Hei");
#endif
}
