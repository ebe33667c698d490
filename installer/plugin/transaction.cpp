#include "transaction.h"

#include <windows.h>

#include <algorithm>
#include <cwctype>
#include <set>

namespace transaction {
namespace {

using Paths = std::set<std::wstring>; // lower case, relative, '\' separated

DWORD attributesOf(const std::wstring &path)
{
    return GetFileAttributesW(path.c_str());
}

bool exists(const std::wstring &path)
{
    return attributesOf(path) != INVALID_FILE_ATTRIBUTES;
}

bool isDirectory(const std::wstring &path)
{
    const DWORD attributes = attributesOf(path);
    return attributes != INVALID_FILE_ATTRIBUTES && (attributes & FILE_ATTRIBUTE_DIRECTORY);
}

std::wstring lower(std::wstring text)
{
    std::transform(text.begin(), text.end(), text.begin(),
                   [](wchar_t c) { return wchar_t(std::towlower(c)); });
    return text;
}

std::wstring lastError()
{
    return L" (error " + std::to_wstring(GetLastError()) + L")";
}

std::wstring fromUtf8(const std::string &text)
{
    const int n = MultiByteToWideChar(CP_UTF8, 0, text.data(), int(text.size()), nullptr, 0);
    std::wstring out(std::size_t(std::max(n, 0)), L'\0');
    MultiByteToWideChar(CP_UTF8, 0, text.data(), int(text.size()), out.data(), n);
    return out;
}

// What an install put into `folder`; for a folder without a list, the files of the script
// that kept none ("dir\" stands for a whole tree).
Paths installedFiles(const std::wstring &folder)
{
    const HANDLE file = CreateFileW((folder + L"\\" + kManifest).c_str(), GENERIC_READ,
                                    FILE_SHARE_READ, nullptr, OPEN_EXISTING, 0, nullptr);
    if (file == INVALID_HANDLE_VALUE)
        return {L"tandemo.exe", L"tandemoinstsvc.exe", L"uninstall.exe", L"resources\\"};
    std::string bytes;
    char buffer[65536];
    DWORD n = 0;
    while (ReadFile(file, buffer, sizeof buffer, &n, nullptr) && n > 0)
        bytes.append(buffer, n);
    CloseHandle(file);
    Paths out{lower(kManifest)};
    std::size_t start = 0;
    while (start < bytes.size()) {
        std::size_t end = bytes.find('\n', start);
        end = end == std::string::npos ? bytes.size() : end;
        std::string line = bytes.substr(start, end - start);
        if (!line.empty() && line.back() == '\r')
            line.pop_back();
        if (!line.empty())
            out.insert(lower(fromUtf8(line)));
        start = end + 1;
    }
    return out;
}

bool installed(const Paths &files, const std::wstring &key)
{
    return files.count(key) ||
           std::any_of(files.begin(), files.end(), [&](const std::wstring &entry) {
               return entry.back() == L'\\' && key.compare(0, entry.size(), entry) == 0;
           });
}

bool holdsInstalled(const Paths &files, const std::wstring &directoryKey)
{
    const std::wstring prefix = directoryKey + L"\\";
    return std::any_of(files.begin(), files.end(), [&](const std::wstring &entry) {
        return entry.compare(0, prefix.size(), prefix) == 0;
    });
}

// Moves what the user added to the old tree (`relative`: "" or "dir\") into the new one,
// where the new version has nothing of that name.
void carryUserFiles(const std::wstring &from, const std::wstring &to, const std::wstring &relative,
                    const Paths &files, const Log &log)
{
    WIN32_FIND_DATAW entry;
    const HANDLE find = FindFirstFileW((from + L"\\" + relative + L"*").c_str(), &entry);
    if (find == INVALID_HANDLE_VALUE)
        return;
    do {
        const std::wstring name = entry.cFileName;
        if (name == L"." || name == L"..")
            continue;
        const std::wstring path = relative + name, key = lower(path);
        const bool directory = entry.dwFileAttributes & FILE_ATTRIBUTE_DIRECTORY;
        if (installed(files, directory ? key + L"\\" : key))
            continue;
        if (directory && holdsInstalled(files, key)) {
            CreateDirectoryW((to + L"\\" + path).c_str(), nullptr);
            carryUserFiles(from, to, path + L"\\", files, log);
            continue;
        }
        if (exists(to + L"\\" + path))
            continue; // the new version ships one of that name
        if (MoveFileExW((from + L"\\" + path).c_str(), (to + L"\\" + path).c_str(), 0))
            log(L"kept the user's " + path);
        else
            log(L"could not keep the user's " + path + lastError());
    } while (FindNextFileW(find, &entry));
    FindClose(find);
}

// After the swap: the user's files carried over (by commit, unless it was stopped), the old tree
// gone.
void finish(const std::wstring &folder, const Log &log)
{
    const std::wstring old = folder + L".old";
    if (!isDirectory(old))
        return;
    carryUserFiles(old, folder, L"", installedFiles(old), log);
    if (!removeTree(old))
        log(L"could not remove all of " + old + L"; the next run removes the rest");
}

} // namespace

std::wstring stageOf(const std::wstring &folder)
{
    return folder + L".new";
}

bool removeTree(const std::wstring &path)
{
    const DWORD attributes = attributesOf(path);
    if (attributes == INVALID_FILE_ATTRIBUTES)
        return true;
    SetFileAttributesW(path.c_str(), FILE_ATTRIBUTE_NORMAL);
    // A link to a folder goes, not what it points to.
    if (!(attributes & FILE_ATTRIBUTE_DIRECTORY))
        return DeleteFileW(path.c_str()) != 0;
    bool ok = true;
    if (!(attributes & FILE_ATTRIBUTE_REPARSE_POINT)) {
        WIN32_FIND_DATAW entry;
        const HANDLE find = FindFirstFileW((path + L"\\*").c_str(), &entry);
        if (find != INVALID_HANDLE_VALUE) {
            do {
                const std::wstring name = entry.cFileName;
                if (name != L"." && name != L"..")
                    ok = removeTree(path + L"\\" + name) && ok;
            } while (FindNextFileW(find, &entry));
            FindClose(find);
        }
    }
    return RemoveDirectoryW(path.c_str()) != 0 && ok;
}

Result commit(const std::wstring &folder, const Log &log)
{
    const std::wstring stage = stageOf(folder), old = folder + L".old";
    if (!isDirectory(stage)) {
        log(L"commit: nothing staged in " + stage);
        return Result::Failed;
    }
    if (!removeTree(old)) {
        log(L"commit: could not clear " + old + lastError());
        return Result::Failed;
    }
    const bool upgrade = exists(folder);
    if (upgrade && !MoveFileExW(folder.c_str(), old.c_str(), 0)) {
        const DWORD error = GetLastError();
        log(L"commit: the installed tree cannot be moved aside" + lastError());
        return error == ERROR_ACCESS_DENIED || error == ERROR_SHARING_VIOLATION ||
                       error == ERROR_LOCK_VIOLATION
                   ? Result::Locked
                   : Result::Failed;
    }
    if (!MoveFileExW(stage.c_str(), folder.c_str(), 0)) {
        log(L"commit: the new tree cannot be moved in" + lastError());
        if (upgrade && !MoveFileExW(old.c_str(), folder.c_str(), 0))
            log(L"commit: the old tree stays in " + old + L" until the next run" + lastError());
        return Result::Failed;
    }
    log(L"commit: " + stage + L" is now " + folder);
    if (upgrade)
        carryUserFiles(old, folder, L"", installedFiles(old), log);
    return Result::Done;
}

namespace {

// A running program's file can be renamed but not deleted, by itself or anyone: a hidden
// command interpreter deletes it, then `folder` when empty, once this process has ended, which
// it learns from a pipe only this process holds open. Not when `unless` exists by then: a new
// installation's list, when the file has to be deleted where a new install puts its own.
bool deleteAfterExit(const std::wstring &file, const std::wstring &folder,
                     const std::wstring &unless = std::wstring())
{
    SECURITY_ATTRIBUTES inheritable = {sizeof inheritable, nullptr, TRUE};
    HANDLE read = nullptr, write = nullptr;
    if (!CreatePipe(&read, &write, &inheritable, 0))
        return false;
    SetHandleInformation(write, HANDLE_FLAG_INHERIT, 0); // leaked on purpose: closed by the exit
    const HANDLE null = CreateFileW(L"NUL", GENERIC_WRITE, FILE_SHARE_WRITE, &inheritable,
                                    OPEN_EXISTING, 0, nullptr);
    wchar_t system[MAX_PATH];
    GetSystemDirectoryW(system, MAX_PATH);
    // Two tries, 2 s and 4 s after the end: Windows keeps the file until whoever started this
    // process has closed its handle too. Not a loop: the interpreters of Windows and Wine end a
    // loop's body in different places (an `if`'s too: at the end of the line, at the next `&`,
    // both safe here).
    const std::wstring pause = L" & ping -n 3 127.0.0.1",
                       del = (unless.empty() ? L" & " : L" & if not exist \"" + unless + L"\" ") +
                             L"del /f /q \"" + file + L"\"";
    std::wstring command = L"\"" + std::wstring(system) + L"\\cmd.exe\" /d /q /c set /p x=" +
                           pause + del + pause + del;
    if (!folder.empty())
        command += L" & rd \"" + folder + L"\"";
    STARTUPINFOW startup = {};
    startup.cb = sizeof startup;
    startup.dwFlags = STARTF_USESTDHANDLES;
    startup.hStdInput = read;
    startup.hStdOutput = startup.hStdError = null;
    PROCESS_INFORMATION process = {};
    const bool started = CreateProcessW(nullptr, command.data(), nullptr, nullptr, TRUE,
                                        CREATE_NO_WINDOW, nullptr, system, &startup, &process);
    if (started) {
        CloseHandle(process.hThread);
        CloseHandle(process.hProcess);
    }
    CloseHandle(read);
    CloseHandle(null);
    return started;
}

std::wstring ownImage()
{
    wchar_t path[MAX_PATH * 2];
    const DWORD n = GetModuleFileNameW(nullptr, path, DWORD(std::size(path)));
    return std::wstring(path, n);
}

std::wstring folderOf(const std::wstring &path)
{
    return path.substr(0, path.find_last_of(L'\\'));
}

} // namespace

void removeOwnCopy(const Log &log)
{
    const std::wstring self = ownImage(), folder = folderOf(self);
    if (lower(folder).find(L"\\~nsu") != std::wstring::npos && !deleteAfterExit(self, folder))
        log(L"uninstall: " + self + L" stays: no command interpreter" + lastError());
}

bool removeInstalled(const std::wstring &folder, const Log &log)
{
    bool ok = true;
    std::set<std::wstring> folders;
    std::wstring self = ownImage();
    if (lower(folderOf(self)) == lower(folder)) {
        // Run in place (_?=): out of the folder, so that the folder goes now; into %TEMP%, or
        // beside the folder when %TEMP% is on another volume.
        wchar_t temp[MAX_PATH];
        const std::wstring name =
            L"Corvalen-uninstall-" + std::to_wstring(GetCurrentProcessId()) + L".tmp";
        bool out = false;
        for (const std::wstring &moved : {std::wstring(temp, GetTempPathW(MAX_PATH, temp)) + name,
                                          folderOf(folder) + L"\\" + name})
            if (!out && MoveFileExW(self.c_str(), moved.c_str(), MOVEFILE_REPLACE_EXISTING))
                self = moved, out = true;
        if (!out)
            log(L"uninstall: " + self + L" stays in the folder until the uninstaller has ended" +
                lastError());
        if (!deleteAfterExit(self, out ? std::wstring() : folder,
                             out ? std::wstring() : folder + L"\\" + kManifest))
            log(L"uninstall: " + self + L" stays: no command interpreter" + lastError());
    }
    for (const std::wstring &entry : installedFiles(folder)) {
        const std::wstring path = folder + L"\\" + entry;
        if (lower(path) == lower(self))
            continue;
        if (entry.back() == L'\\') { // a whole tree of the script that kept no list
            ok = removeTree(path.substr(0, path.size() - 1)) && ok;
            continue;
        }
        for (std::size_t cut = entry.find(L'\\'); cut != std::wstring::npos;
             cut = entry.find(L'\\', cut + 1))
            folders.insert(folder + L"\\" + entry.substr(0, cut));
        SetFileAttributesW(path.c_str(), FILE_ATTRIBUTE_NORMAL);
        if (exists(path) && !DeleteFileW(path.c_str())) {
            log(L"uninstall: could not remove " + path + lastError());
            ok = false;
        }
    }
    // Deepest first; a folder the user put something into stays.
    for (auto it = folders.rbegin(); it != folders.rend(); ++it)
        RemoveDirectoryW(it->c_str());
    if (!RemoveDirectoryW(folder.c_str()) && exists(folder))
        log(L"uninstall: " + folder + L" keeps what the user put there");
    return ok;
}

void recover(const std::wstring &folder, const Log &log)
{
    const std::wstring stage = stageOf(folder), old = folder + L".old";
    if (!exists(folder) && isDirectory(old)) {
        // Stopped between the two renames, before the registry was written: undone.
        if (MoveFileExW(old.c_str(), folder.c_str(), 0))
            log(L"recover: the interrupted upgrade of " + folder + L" undone");
        else
            log(L"recover: could not restore " + old + lastError());
    } else if (isDirectory(old)) {
        log(L"recover: finishing the upgrade of " + folder);
        finish(folder, log);
    }
    if (exists(stage)) {
        log(L"recover: removing the unfinished " + stage);
        removeTree(stage);
    }
}

} // namespace transaction
