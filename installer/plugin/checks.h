// What the installer refuses before it changes anything: the wrong account, a version it must
// not replace, a folder that is not a place to install. Each decision is a function of what it
// is shown, so that the os tier can show it every case, Windows' own included.
#pragma once

#include <string>
#include <vector>

namespace checks {

enum class Account
{
    User,     // a user's own, unelevated (or UAC is off, or there is no split token)
    Elevated, // "Run as administrator": the full half of a split token
    System,   // the machine's service accounts: another user's profile and registry
};
// From the token's user (a string SID) and its TOKEN_ELEVATION_TYPE.
Account classifyAccount(const std::wstring &sid, int elevationType);
// This process's account; `sid` gets its user.
Account currentAccount(std::wstring *sid = nullptr);

enum class Version
{
    Older, // the installed one is older than this installer's: an upgrade
    Same,
    Newer,   // never replaced by an older one
    Invalid, // not four numbers: never replaced either
};
// By the front end's rule: four dot-separated decimal numbers, compared from the left.
Version compareInstalled(const std::wstring &installed, const std::wstring &ours);

enum class Folder
{
    Absent,
    Empty,
    Installed, // holds our file list
    Occupied,  // holds somebody's files and no list of ours
    File,      // not a folder
    Protected, // a drive's root, a known folder of the shell, or a folder that holds one
    Nested,    // inside the registered installation, or holding it
};
Folder inspectFolder(const std::wstring &folder, const std::wstring &registered,
                     const std::vector<std::wstring> &protectedFolders);
// The shell's known folders of this user and of the machine, and %TEMP%.
std::vector<std::wstring> knownFolders();

} // namespace checks
