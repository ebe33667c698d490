// What makes an install, an upgrade or an uninstall all or nothing, and what makes it touch
// only its own. A run records itself before it changes anything: a registry value names it, and
// a journal in its work folder ("<folder>\.corvalen-<run>", made by the run) lists every change
// before it is made. The new files are staged there; commit then moves, one journaled rename
// at a time inside the folder itself, the old version's listed files out and the new ones in,
// writes the registration and the shortcuts, and ends with one journal line, "committed": the
// point of no return. The folder itself is never renamed or replaced, and nothing that the old
// version's list does not name is moved, but for a user's item in the way of a new one, which is
// kept under a clear name. Whatever ends a run on the way, the next run of any installer or
// uninstaller (recover) undoes it from the journal, or, once committed, finishes it.
#pragma once

#include <windows.h>

#include <functional>
#include <string>
#include <vector>

namespace transaction {

using Log = std::function<void(const std::wstring &)>;

enum class Result
{
    Done,
    Locked,    // something held a file after every retry: nothing changed, the stage is kept
    Failed,    // nothing changed, the stage is kept
    Cancelled, // the user gave up just before the point of no return: nothing changed
};

// The list of what an install put into its folder, one relative path a line (UTF-8), a folder
// of ours with nothing in it as "dir\"; kept in the folder itself.
inline const wchar_t kFileList[] = L"Uninstall.lst";

struct FileList
{
    bool present = false;
    std::vector<std::wstring> files;   // as listed, '\' separated; the list itself included
    std::vector<std::wstring> folders; // "dir\" lines, without the backslash
};
// Only plain paths below the folder are taken; every other line is logged and ignored.
FileList readFileList(const std::wstring &folder, const Log &log);
// No drive, root, "." or "..", stream, wildcard or control character; '\' separated.
bool isPlainRelativePath(const std::wstring &path);

struct RegistryValue // under HKEY_CURRENT_USER
{
    std::wstring key, name;
    DWORD type = REG_NONE; // REG_SZ or REG_DWORD; REG_NONE removes the value
    std::vector<BYTE> data;
};

struct Shortcut
{
    std::wstring path, target, workingFolder; // no target: the shortcut is removed
};

// What a run does once its files are staged.
struct Plan
{
    bool uninstall = false; // the folder's listed files go, nothing comes
    std::vector<RegistryValue> values;
    std::vector<std::wstring> removedKeys; // their values, then the key when it is empty
    std::vector<Shortcut> shortcuts;
    // An earlier copy in another folder: its listed files go once this run is committed.
    std::wstring previousFolder;
    // Asked just before the point of no return; false undoes the run (a late cancel).
    std::function<bool()> stillWanted;
    // The running uninstaller's own file: it stays in place until the end.
    std::wstring self;
};

struct Settings
{
    // Where a run records itself (HKEY_CURRENT_USER).
    std::wstring key = L"Software\\Corvalen";
    std::wstring value = L"PendingSetup";
    // Called before every change with what it is about to do: a non-zero answer stands for
    // the Windows error of that change (tests simulate a locked file, or stop there).
    std::function<DWORD(const std::wstring &)> hook;
    // Waits before each retry of a rename that a scanner or the application holds, in ms.
    std::vector<DWORD> retryWaits = {50, 100, 200, 400, 800};
};
Settings &settings();

// Starts a run on `folder` (absolute): recorded, the folder created when missing, a work folder
// in it. Returns the folder to stage the new files into, "" when it could not start.
std::wstring begin(const std::wstring &folder, const Log &log);
// The swap, the registration, the point of no return and the clean-up. On Locked or Failed the
// swap is undone and the stage kept: commit may be called again, or abort.
Result commit(const Plan &plan, const Log &log);
// Undoes the run begun: nothing of it stays. False when something could not be put back (the
// next run tries again).
bool abort(const Log &log);
// Undoes, or finishes once committed, a run that ended on the way; nothing when none did. False
// when what it left could not be put right.
bool recover(const Log &log);

// Removes a tree; a link to a folder goes, not what it points to.
bool removeTree(const std::wstring &path);
// An uninstaller started without _?= runs from a copy NSIS made in %TEMP%: deleted, with its
// folder, once it has ended.
void removeOwnCopy(const Log &log);

} // namespace transaction
