// What makes an install or an upgrade all or nothing. The script writes the new tree beside the
// installation, in "<folder>.new" (the same volume, so that moving it is a rename); commit puts
// it in the folder's place with two renames, the old tree moved aside as "<folder>.old", and
// carries over the files the user added to it. Then the script registers the new version and
// recover finishes: the old tree goes. A run that ends anywhere on the way is finished or undone
// by the next one (recover again), before it does anything else.
#pragma once

#include <functional>
#include <string>

namespace transaction {

using Log = std::function<void(const std::wstring &)>;

enum class Result
{
    Done,
    Locked, // the installed tree is in use: nothing changed
    Failed  // nothing changed
};

// The list of what an install put into its folder, one relative path a line (UTF-8), kept in
// the folder itself: what an upgrade replaces and the uninstaller removes.
inline const wchar_t kManifest[] = L"Uninstall.lst";

std::wstring stageOf(const std::wstring &folder);
Result commit(const std::wstring &folder, const Log &log);
void recover(const std::wstring &folder, const Log &log);
bool removeTree(const std::wstring &path);
// The uninstall: what the list names, then the folders it left empty, the folder itself last;
// what the user added stays. False when something could not be removed. Run in place, the
// uninstaller's own file leaves the folder at once and is deleted once it has ended.
bool removeInstalled(const std::wstring &folder, const Log &log);
// An uninstaller started without _?= runs from a copy NSIS made in %TEMP%: deleted, with its
// folder, once it has ended.
void removeOwnCopy(const Log &log);

} // namespace transaction
