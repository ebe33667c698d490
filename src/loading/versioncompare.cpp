#include "loading/versioncompare.h"

#include <QStringList>

std::optional<int> compareVersions(const QString &strVersionNew, const QString &strVersionOld)
{
    const QStringList newParts = strVersionNew.split(".");
    const QStringList oldParts = strVersionOld.split(".");
    if (newParts.size() != 4 || oldParts.size() != 4)
        return std::nullopt;
    bool ok = false;
    int result = 0;
    for (int i = 0; i < 4; ++i) {
        const int a = newParts[i].toInt(&ok, 10);
        int b = 0;
        if (ok)
            b = oldParts[i].toInt(&ok, 10);
        if (!ok)
            break;
        if (a > b) {
            result = 1;
            break;
        }
        if (a != b) {
            result = -1;
            break;
        }
        result = 0;
    }
    if (!ok)
        return std::nullopt;
    return result;
}
