// Decisions of the main window that need no widgets.
#pragma once

#include <QString>
#include <QUrl>

#include <cstdint>

namespace InstallLogic {

// The folder the user browsed to, as the engine expects it: "\Tandemo" appended, backslashes
// only, doubled separators collapsed.
QString browsedInstallPath(const QString &strChosenDir);

// The notice that refuses the install button, or an empty text when all checks pass. The
// checks run in a fixed order and the first failing one wins; `strPath` words the
// missing-folder notice.
QString installRefusal(bool bAgreementChecked, bool bPathMissing, std::uint32_t availableMB,
                       std::uint32_t requiredMB, bool bWritable, const QString &strPath);

QString missingFolderNotice(const QString &strPath);

// Width of the bar's foreground: proportional, truncated, never below 16 pixels.
int progressBarWidth(int backgroundWidth, int iProgress);

// The two agreement pages: same page, different fragment.
QUrl serviceAgreementUrl();
QUrl privacyPolicyUrl();

} // namespace InstallLogic
