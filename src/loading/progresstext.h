#pragma once

#include <QString>

// "进度：40%"
QString progressText(unsigned int iProgress);
