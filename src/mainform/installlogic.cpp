#include "mainform/installlogic.h"

#include <limits>

#ifndef CORVALEN_AGREEMENT_PAGE
#define CORVALEN_AGREEMENT_PAGE "https://help.corvalen.com/legal/agreement.html"
#endif

namespace InstallLogic {

QString browsedInstallPath(const QString &strChosenDir)
{
    QString strPath = strChosenDir + "/Tandemo";
    strPath.replace("/", "\\");
    for (int pass = 0; pass < 3; ++pass)
        strPath.replace("\\\\", "\\");
    return strPath;
}

QString missingFolderNotice(const QString &strPath)
{
    return QString("发生意外。您选择的目录[") + strPath + "]不存在，请重试。";
}

QString installRefusal(bool bAgreementChecked, bool bPathMissing, std::uint32_t availableMB,
                       std::uint32_t requiredMB, bool bWritable, const QString &strPath)
{
    if (!bAgreementChecked)
        return "请选阅读并同意《服务协议》和《隐私政策》";
    if (bPathMissing)
        return missingFolderNotice(strPath);
    if (availableMB <= requiredMB)
        return "磁盘空间不足。请先清理磁盘，或选择另一个磁盘。";
    if (!bWritable)
        return "您选择的安装目录没有写权限，请选择其他安装目录。";
    return QString();
}

int progressBarWidth(int backgroundWidth, int iProgress)
{
    // 64 bits: a malformed engine's wParam reaches here as any int.
    const qint64 w = qint64(backgroundWidth) * iProgress / 100;
    return int(qBound<qint64>(16, w, std::numeric_limits<int>::max()));
}

static QUrl agreementUrl(const char *fragment)
{
    // The page is a deployment setting (CORVALEN_AGREEMENT_PAGE); the query and fragments
    // are what the help site expects.
    QUrl url(QString(CORVALEN_AGREEMENT_PAGE) + "?hideHeader=1&h5Preset=PC#" + fragment,
             QUrl::TolerantMode);
    return url;
}

QUrl serviceAgreementUrl()
{
    return agreementUrl("263");
}

QUrl privacyPolicyUrl()
{
    return agreementUrl("199");
}

} // namespace InstallLogic
