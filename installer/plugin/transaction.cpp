#include "transaction.h"

#include "winutil.h"

#include <objbase.h>
#include <shlobj.h>

#include <algorithm>
#include <cwctype>
#include <set>

namespace transaction {

using winutil::exists;
using winutil::isDirectory;
using winutil::lastError;
using winutil::lower;
using winutil::parentOf;
using winutil::withLongPrefix;

namespace {

using Fields = std::vector<std::wstring>;

const wchar_t kWorkPrefix[] = L".corvalen-";

// The errors of a file that somebody holds for a moment: a scanner, the search indexer, the
// application closing.
bool transient(DWORD error)
{
    return error == ERROR_SHARING_VIOLATION || error == ERROR_ACCESS_DENIED ||
           error == ERROR_LOCK_VIOLATION;
}

DWORD hook(const std::wstring &what)
{
    return settings().hook ? settings().hook(what) : 0;
}

bool moveNow(const std::wstring &from, const std::wstring &to)
{
    return MoveFileExW(withLongPrefix(from).c_str(), withLongPrefix(to).c_str(), 0) != 0;
}

// A rename, retried while something holds the file; 0 or the last error.
DWORD moveRetrying(const std::wstring &from, const std::wstring &to)
{
    for (std::size_t attempt = 0;; ++attempt) {
        DWORD error = hook(L"move " + from + L" -> " + to);
        if (!error) {
            if (moveNow(from, to))
                return 0;
            error = GetLastError();
        }
        if (!transient(error) || attempt == settings().retryWaits.size())
            return error;
        Sleep(settings().retryWaits[attempt]);
    }
}

bool createFolder(const std::wstring &path)
{
    return CreateDirectoryW(withLongPrefix(path).c_str(), nullptr) ||
           GetLastError() == ERROR_ALREADY_EXISTS;
}

// Every missing folder down to `path`; the journal-free kind, for the run's own work folder.
bool createFolders(const std::wstring &path)
{
    if (isDirectory(path))
        return true;
    const std::wstring parent = parentOf(path);
    return (parent.empty() || parent == path || createFolders(parent)) && createFolder(path);
}

bool removeFolder(const std::wstring &path)
{
    return RemoveDirectoryW(withLongPrefix(path).c_str()) != 0;
}

bool folderIsEmpty(const std::wstring &path)
{
    bool empty = true;
    winutil::forEachEntry(path, [&](const WIN32_FIND_DATAW &) { empty = false; });
    return empty;
}

// --- the registry, under HKEY_CURRENT_USER -------------------------------------------------

std::wstring hex(const std::vector<BYTE> &bytes)
{
    static const wchar_t digits[] = L"0123456789abcdef";
    std::wstring out;
    for (const BYTE b : bytes)
        out += digits[b >> 4], out += digits[b & 15];
    return out;
}

std::vector<BYTE> unhex(const std::wstring &text)
{
    const auto digit = [](wchar_t c) { return c <= L'9' ? c - L'0' : c - L'a' + 10; };
    std::vector<BYTE> out;
    for (std::size_t i = 0; i + 1 < text.size(); i += 2)
        out.push_back(BYTE(digit(text[i]) << 4 | digit(text[i + 1])));
    return out;
}

bool keyExists(const std::wstring &key)
{
    HKEY handle = nullptr;
    if (RegOpenKeyExW(HKEY_CURRENT_USER, key.c_str(), 0, KEY_READ, &handle) != ERROR_SUCCESS)
        return false;
    RegCloseKey(handle);
    return true;
}

// The value's type and bytes; false when it is not there.
bool readValue(const std::wstring &key, const std::wstring &name, DWORD &type,
               std::vector<BYTE> &data)
{
    DWORD size = 0;
    if (RegGetValueW(HKEY_CURRENT_USER, key.c_str(), name.c_str(), RRF_RT_ANY | RRF_NOEXPAND, &type,
                     nullptr, &size) != ERROR_SUCCESS)
        return false;
    data.resize(size);
    return RegGetValueW(HKEY_CURRENT_USER, key.c_str(), name.c_str(), RRF_RT_ANY | RRF_NOEXPAND,
                        &type, data.data(), &size) == ERROR_SUCCESS &&
           (data.resize(size), true);
}

LSTATUS writeValue(const std::wstring &key, const std::wstring &name, DWORD type,
                   const std::vector<BYTE> &data)
{
    if (type == REG_NONE) {
        const LSTATUS status = RegDeleteKeyValueW(HKEY_CURRENT_USER, key.c_str(), name.c_str());
        return status == ERROR_FILE_NOT_FOUND ? ERROR_SUCCESS : status;
    }
    return RegSetKeyValueW(HKEY_CURRENT_USER, key.c_str(), name.c_str(), type, data.data(),
                           DWORD(data.size()));
}

std::vector<std::wstring> valueNames(const std::wstring &key)
{
    std::vector<std::wstring> names;
    HKEY handle = nullptr;
    if (RegOpenKeyExW(HKEY_CURRENT_USER, key.c_str(), 0, KEY_READ, &handle) != ERROR_SUCCESS)
        return names;
    wchar_t name[16384];
    for (DWORD i = 0, n = 16384;
         RegEnumValueW(handle, i, name, &n, nullptr, nullptr, nullptr, nullptr) == ERROR_SUCCESS;
         ++i, n = 16384)
        names.emplace_back(name, n);
    RegCloseKey(handle);
    return names;
}

// Removes the key when nothing is in it any more.
void dropKeyIfEmpty(const std::wstring &key)
{
    HKEY handle = nullptr;
    if (RegOpenKeyExW(HKEY_CURRENT_USER, key.c_str(), 0, KEY_READ, &handle) != ERROR_SUCCESS)
        return;
    DWORD subkeys = 1, values = 1;
    RegQueryInfoKeyW(handle, nullptr, nullptr, nullptr, &subkeys, nullptr, nullptr, &values,
                     nullptr, nullptr, nullptr, nullptr);
    RegCloseKey(handle);
    if (subkeys == 0 && values == 0)
        RegDeleteKeyW(HKEY_CURRENT_USER, key.c_str());
}

// --- what a run records ----------------------------------------------------------------------

// The registry's note of the run: "1 <tab> run <tab> folder <tab> topmost folder it created".
struct Record
{
    std::wstring run, folder, created;
    std::wstring work() const { return folder + L"\\" + kWorkPrefix + run; }
    std::wstring journal() const { return work() + L"\\journal"; }
};

std::vector<std::wstring> split(const std::wstring &text, wchar_t separator)
{
    std::vector<std::wstring> out(1);
    for (const wchar_t c : text) {
        if (c == separator)
            out.emplace_back();
        else
            out.back().push_back(c);
    }
    return out;
}

bool readRecord(Record &record)
{
    DWORD type = 0;
    std::vector<BYTE> data;
    if (!readValue(settings().key, settings().value, type, data) || type != REG_SZ)
        return false;
    std::wstring text(reinterpret_cast<const wchar_t *>(data.data()), data.size() / 2);
    text.resize(wcsnlen(text.c_str(), text.size()));
    const std::vector<std::wstring> fields = split(text, L'\t');
    if (fields.size() != 4 || fields[0] != L"1" || fields[1].empty() ||
        fields[1].find_first_not_of(L"0123456789abcdef") != std::wstring::npos ||
        !winutil::isAbsolute(fields[2]))
        return false;
    record = {fields[1], fields[2], fields[3]};
    return true;
}

LSTATUS writeRecord(const Record &record)
{
    const std::wstring text = L"1\t" + record.run + L"\t" + record.folder + L"\t" + record.created;
    const auto *bytes = reinterpret_cast<const BYTE *>(text.c_str());
    return writeValue(settings().key, settings().value, REG_SZ,
                      std::vector<BYTE>(bytes, bytes + (text.size() + 1) * sizeof(wchar_t)));
}

void dropRecord()
{
    writeValue(settings().key, settings().value, REG_NONE, {});
    dropKeyIfEmpty(settings().key);
}

// The journal's whole lines, tab-separated; a line cut short by the end of a process was never
// acted on and is left out.
std::vector<Fields> readJournal(const std::wstring &path)
{
    std::vector<Fields> lines;
    const std::string bytes = winutil::readFile(path);
    std::size_t start = 0;
    for (std::size_t end; (end = bytes.find('\n', start)) != std::string::npos; start = end + 1)
        lines.push_back(split(winutil::fromUtf8(bytes.substr(start, end - start)), L'\t'));
    return lines;
}

// --- the run in progress ---------------------------------------------------------------------

struct Run
{
    Record record;
    HANDLE journal = INVALID_HANDLE_VALUE;
    bool active = false;

    std::wstring stage() const { return record.work() + L"\\new"; }
    std::wstring old() const { return record.work() + L"\\old"; }

    DWORD write(const Fields &fields)
    {
        std::wstring line;
        for (const std::wstring &field : fields)
            line += (line.empty() ? L"" : L"\t") + field;
        const std::string bytes = winutil::toUtf8(line) + "\n";
        DWORD written = 0;
        if (!WriteFile(journal, bytes.data(), DWORD(bytes.size()), &written, nullptr))
            return GetLastError();
        return written == bytes.size() ? 0 : ERROR_DISK_FULL;
    }

    // A rename, journaled first.
    DWORD move(const std::wstring &from, const std::wstring &to)
    {
        if (const DWORD error = write({L"move", from, to}))
            return error;
        return moveRetrying(from, to);
    }

    DWORD makeFolder(const std::wstring &path)
    {
        if (isDirectory(path))
            return 0;
        if (const DWORD error = write({L"mkdir", path}))
            return error;
        if (const DWORD error = hook(L"mkdir " + path))
            return error;
        return createFolder(path) ? 0 : GetLastError();
    }

    void close()
    {
        if (journal != INVALID_HANDLE_VALUE)
            CloseHandle(journal);
        journal = INVALID_HANDLE_VALUE;
        active = false;
    }
};

Run g_run;

// A free name beside `path` for a user's item that a new one of ours takes the place of.
std::wstring keptName(const std::wstring &path)
{
    const std::size_t slash = path.rfind(L'\\');
    const std::size_t dot = path.rfind(L'.');
    const bool hasExtension = dot != std::wstring::npos && dot > slash + 1 && !isDirectory(path);
    const std::wstring stem = hasExtension ? path.substr(0, dot) : path,
                       extension = hasExtension ? path.substr(dot) : std::wstring();
    for (int n = 1;; ++n) {
        const std::wstring candidate =
            stem + L" (用户文件" + (n > 1 ? L" " + std::to_wstring(n) : L"") + L")" + extension;
        if (!exists(candidate))
            return candidate;
    }
}

// What the old version's list names, lower case, with every folder its files lie in.
struct Owned
{
    std::set<std::wstring> files, folders;
    explicit Owned(const FileList &list)
    {
        for (const std::wstring &file : list.files) {
            files.insert(lower(file));
            for (std::size_t cut = file.find(L'\\'); cut != std::wstring::npos;
                 cut = file.find(L'\\', cut + 1))
                folders.insert(lower(file.substr(0, cut)));
        }
        for (const std::wstring &folder : list.folders)
            folders.insert(lower(folder));
    }
    // Everything inside this folder of ours is ours too: it can go in one rename.
    bool wholly(const std::wstring &folder, const std::wstring &relative) const
    {
        bool all = true;
        winutil::forEachEntry(folder + L"\\" + relative, [&](const WIN32_FIND_DATAW &entry) {
            const std::wstring path = relative + L"\\" + entry.cFileName, key = lower(path);
            if (entry.dwFileAttributes & FILE_ATTRIBUTE_REPARSE_POINT)
                all = false;
            else if (entry.dwFileAttributes & FILE_ATTRIBUTE_DIRECTORY)
                all = all && folders.count(key) && wholly(folder, path);
            else
                all = all && files.count(key);
        });
        return all;
    }
};

// The old version's files out of the folder, into the work folder: whole folders of ours in one
// rename, the user's items left where they are. The running uninstaller stays.
DWORD moveOldOut(const std::wstring &folder, const std::wstring &relative, const Owned &owned,
                 const std::wstring &self)
{
    DWORD error = 0;
    const std::wstring work = g_run.record.work();
    winutil::forEachEntry(folder + relative, [&](const WIN32_FIND_DATAW &entry) {
        const std::wstring path = relative + L"\\" + entry.cFileName, key = lower(path);
        const std::wstring from = folder + path, to = g_run.old() + path;
        if (error || lower(from) == lower(work) || lower(from) == lower(self) ||
            (entry.dwFileAttributes & FILE_ATTRIBUTE_REPARSE_POINT))
            return;
        if (entry.dwFileAttributes & FILE_ATTRIBUTE_DIRECTORY) {
            if (!owned.folders.count(key.substr(1)))
                return;
            if (owned.wholly(folder, path.substr(1)))
                error = createFolders(parentOf(to)) ? g_run.move(from, to) : GetLastError();
            else
                error = moveOldOut(folder, path, owned, self);
        } else if (owned.files.count(key.substr(1))) {
            error = createFolders(parentOf(to)) ? g_run.move(from, to) : GetLastError();
        }
    });
    return error;
}

// The new version's entries in, from the stage: a whole entry in one rename where its name is
// free, folders merged with the user's, a user's item in the way kept under a clear name.
DWORD moveNewIn(const std::wstring &folder, const std::wstring &relative, const Owned &old,
                const Log &log)
{
    DWORD error = 0;
    winutil::forEachEntry(g_run.stage() + relative, [&](const WIN32_FIND_DATAW &entry) {
        if (error)
            return;
        const std::wstring path = relative + L"\\" + entry.cFileName;
        const std::wstring from = g_run.stage() + path, to = folder + path;
        const bool directory = entry.dwFileAttributes & FILE_ATTRIBUTE_DIRECTORY;
        const DWORD there = winutil::attributesOf(to);
        if (there != INVALID_FILE_ATTRIBUTES) {
            const bool thereDirectory =
                (there & FILE_ATTRIBUTE_DIRECTORY) && !(there & FILE_ATTRIBUTE_REPARSE_POINT);
            if (directory && thereDirectory) {
                error = moveNewIn(folder, path, old, log);
                return;
            }
            // A folder of the old version's, left empty by the move out.
            if (thereDirectory && old.folders.count(lower(path.substr(1))) && folderIsEmpty(to)) {
                error = g_run.write({L"rmdir", to});
                error = error ? error : hook(L"rmdir " + to);
                error = error ? error : removeFolder(to) ? 0 : GetLastError();
            } else {
                const std::wstring kept = keptName(to);
                if ((error = g_run.move(to, kept)))
                    return;
                log(L"kept the user's " + to + L" as " + kept);
            }
            if (error)
                return;
        }
        error = g_run.move(from, to);
    });
    return error;
}

DWORD applyValue(const RegistryValue &value)
{
    DWORD type = 0;
    std::vector<BYTE> data;
    const bool had = readValue(value.key, value.name, type, data);
    DWORD error = 0;
    if (!keyExists(value.key) && value.type != REG_NONE)
        error = g_run.write({L"key", value.key});
    error = error ? error
                  : g_run.write({L"value", value.key, value.name,
                                 had ? std::to_wstring(type) : L"-", had ? hex(data) : L""});
    error = error ? error : hook(L"value " + value.key + L"\\" + value.name);
    return error ? error : DWORD(writeValue(value.key, value.name, value.type, value.data));
}

bool saveShortcut(const Shortcut &shortcut)
{
    const HRESULT init = CoInitializeEx(nullptr, COINIT_APARTMENTTHREADED);
    IShellLinkW *link = nullptr;
    IPersistFile *file = nullptr;
    HRESULT result = CoCreateInstance(CLSID_ShellLink, nullptr, CLSCTX_INPROC_SERVER,
                                      IID_IShellLinkW, reinterpret_cast<void **>(&link));
    if (SUCCEEDED(result))
        result = link->SetPath(shortcut.target.c_str());
    if (SUCCEEDED(result))
        result = link->SetWorkingDirectory(shortcut.workingFolder.c_str());
    if (SUCCEEDED(result))
        result = link->QueryInterface(IID_IPersistFile, reinterpret_cast<void **>(&file));
    if (SUCCEEDED(result))
        result = file->Save(shortcut.path.c_str(), TRUE);
    if (file)
        file->Release();
    if (link)
        link->Release();
    if (SUCCEEDED(init))
        CoUninitialize();
    SetLastError(DWORD(result));
    return SUCCEEDED(result);
}

// The shortcut's path is named first: the one path outside the folder the run may touch.
DWORD applyShortcut(const Shortcut &shortcut, int index)
{
    DWORD error = g_run.write({L"shortcut", shortcut.path});
    if (!error && exists(shortcut.path)) // the one before, kept until the point of no return
        error = createFolders(g_run.old())
                    ? g_run.move(shortcut.path, g_run.old() + L"\\link-" + std::to_wstring(index))
                    : GetLastError();
    if (error || shortcut.target.empty())
        return error;
    error = g_run.write({L"link", shortcut.path});
    error = error ? error : hook(L"link " + shortcut.path);
    return error ? error : saveShortcut(shortcut) ? 0 : GetLastError();
}

// Puts back what the journal's lines from `first` on did, last first. Each line is undone only
// when what it did is there to undo, so that undoing twice changes nothing, and nothing is put
// where something else now lies.
bool undo(const std::vector<Fields> &lines, std::size_t first, const Log &log)
{
    bool ok = true;
    for (std::size_t i = lines.size(); i-- > first;) {
        const Fields &f = lines[i];
        if (f[0] == L"move" && f.size() == 3) {
            if (exists(f[1]) || !exists(f[2]))
                continue;
            if (!createFolders(parentOf(f[1])) || moveRetrying(f[2], f[1])) {
                log(L"could not put back " + f[1] + L" from " + f[2] + lastError());
                ok = false;
            }
        } else if (f[0] == L"mkdir" && f.size() == 2) {
            removeFolder(f[1]);
        } else if (f[0] == L"rmdir" && f.size() == 2) {
            createFolder(f[1]);
        } else if (f[0] == L"value" && f.size() == 5) {
            if (writeValue(f[1], f[2], f[3] == L"-" ? REG_NONE : DWORD(std::stoul(f[3])),
                           unhex(f[4])) != ERROR_SUCCESS) {
                log(L"could not put back the registry value " + f[1] + L"\\" + f[2]);
                ok = false;
            }
        } else if (f[0] == L"key" && f.size() == 2) {
            dropKeyIfEmpty(f[1]);
        } else if (f[0] == L"dropkey" && f.size() == 2) {
            HKEY key = nullptr;
            if (RegCreateKeyExW(HKEY_CURRENT_USER, f[1].c_str(), 0, nullptr, 0, KEY_WRITE, nullptr,
                                &key, nullptr) == ERROR_SUCCESS)
                RegCloseKey(key);
        } else if (f[0] == L"link" && f.size() == 2) {
            DeleteFileW(f[1].c_str());
        }
    }
    return ok;
}

bool isCommitted(const std::vector<Fields> &lines)
{
    return std::any_of(lines.begin(), lines.end(),
                       [](const Fields &f) { return f[0] == L"committed"; });
}

bool isWorkFolder(const std::wstring &path)
{
    const std::wstring name = path.substr(path.find_last_of(L'\\') + 1);
    return winutil::isAbsolute(path) && name.compare(0, wcslen(kWorkPrefix), kWorkPrefix) == 0;
}

// The journal's paths lie in the run's folder, or are the shortcuts it names, or an earlier
// run's work folder: a damaged journal never leads the undo or the clean-up elsewhere.
bool journalIsOwn(const std::vector<Fields> &lines, const Record &record)
{
    const auto inside = [&](const std::wstring &path) {
        return winutil::isInside(path, record.folder);
    };
    const auto isShortcut = [](const std::wstring &path) {
        return winutil::isAbsolute(path) && path.size() > 4 &&
               lower(path.substr(path.size() - 4)) == L".lnk";
    };
    std::set<std::wstring> shortcuts;
    for (const Fields &f : lines) {
        if (f[0] == L"shortcut" && f.size() == 2 && isShortcut(f[1]))
            shortcuts.insert(lower(f[1]));
        const bool own =
            (f[0] == L"move" && f.size() == 3 &&
             ((inside(f[1]) && inside(f[2])) ||
              (shortcuts.count(lower(f[1])) && winutil::isInside(f[2], record.work())))) ||
            ((f[0] == L"mkdir" || f[0] == L"rmdir" || f[0] == L"self") && f.size() == 2 &&
             inside(f[1])) ||
            ((f[0] == L"shortcut" || f[0] == L"link") && f.size() == 2 &&
             shortcuts.count(lower(f[1]))) ||
            (f[0] == L"remnant" && f.size() == 2 && isWorkFolder(f[1])) ||
            (f[0] == L"previous" && f.size() == 2 && winutil::isAbsolute(f[1])) ||
            (f[0] == L"value" && f.size() == 5) ||
            ((f[0] == L"key" || f[0] == L"dropkey") && f.size() == 2) ||
            ((f[0] == L"committed" || f[0] == L"gone") && f.size() == 1);
        if (!own)
            return false;
    }
    return true;
}

void removeCreatedFolders(const Record &record)
{
    if (record.created.empty())
        return;
    for (std::wstring path = record.folder;
         winutil::isInside(path, record.created) || lower(path) == lower(record.created);
         path = parentOf(path))
        if (!removeFolder(path))
            break;
}

// The files an earlier copy's list names, then its folders left empty, the folder last.
void removeListed(const std::wstring &folder, const Log &log)
{
    const FileList list = readFileList(folder, log);
    std::set<std::wstring> folders;
    for (const std::wstring &file : list.files) {
        const std::wstring path = folder + L"\\" + file;
        if (lower(file) == lower(kFileList))
            continue;
        for (std::wstring up = parentOf(path); winutil::isInside(up, folder); up = parentOf(up))
            folders.insert(up);
        SetFileAttributesW(withLongPrefix(path).c_str(), FILE_ATTRIBUTE_NORMAL);
        if (!DeleteFileW(withLongPrefix(path).c_str()) && exists(path))
            log(L"could not remove " + path + lastError());
    }
    for (const std::wstring &listed : list.folders)
        folders.insert(folder + L"\\" + listed);
    for (auto it = folders.rbegin(); it != folders.rend(); ++it) // deepest first
        removeFolder(*it);
    DeleteFileW(withLongPrefix(folder + L"\\" + kFileList).c_str());
    removeFolder(folder);
}

// A name a command interpreter reads as it stands, inside quotes: nothing it would expand.
bool isPlainName(const std::wstring &name)
{
    return !name.empty() && std::all_of(name.begin(), name.end(), [](wchar_t c) {
        return (c >= L'a' && c <= L'z') || (c >= L'A' && c <= L'Z') || (c >= L'0' && c <= L'9') ||
               wcschr(L"._-~", c);
    });
}

// A running program's file can be renamed but not deleted: a hidden command interpreter deletes
// `file` in `folder` once this process has ended, which it learns from a pipe only this process
// holds open; then the folder itself when `removeFolder`, from its parent: the interpreter and
// the console host Wine starts for it hold their working folder. Not when `unless`
// exists by then: a new installation's list. Paths never reach the interpreter's command line,
// only plain names: the interpreters of Windows and Wine expand %NAME% and !NAME! differently,
// and Wine's expands them in the values of variables too.
bool deleteAfterExit(const std::wstring &folder, const std::wstring &file, bool removeFolder,
                     const std::wstring &unless = std::wstring())
{
    const std::wstring name = folder.substr(folder.find_last_of(L'\\') + 1);
    if (!isPlainName(file) || (removeFolder && !isPlainName(name)) ||
        (!unless.empty() && !isPlainName(unless))) {
        SetLastError(ERROR_INVALID_NAME);
        return false;
    }
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
    const std::wstring in = removeFolder ? name + L"\\" : std::wstring();
    const std::wstring pause = L" & ping -n 3 127.0.0.1",
                       del = (unless.empty() ? L" & "
                                             : L" & if not exist \"" + in + unless + L"\" ") +
                             L"del /f /q \"" + in + file + L"\"";
    std::wstring command = L"\"" + std::wstring(system) + L"\\cmd.exe\" /d /v:off /q /c set /p x=" +
                           pause + del + pause + del;
    if (removeFolder)
        command += L" & rd \"" + name + L"\"";
    STARTUPINFOW startup = {};
    startup.cb = sizeof startup;
    startup.dwFlags = STARTF_USESTDHANDLES;
    startup.hStdInput = read;
    startup.hStdOutput = startup.hStdError = null;
    PROCESS_INFORMATION process = {};
    const bool started =
        CreateProcessW(nullptr, command.data(), nullptr, nullptr, TRUE, CREATE_NO_WINDOW, nullptr,
                       (removeFolder ? parentOf(folder) : folder).c_str(), &startup, &process);
    if (started) {
        CloseHandle(process.hThread);
        CloseHandle(process.hProcess);
    }
    CloseHandle(read);
    CloseHandle(null);
    return started;
}

// The running uninstaller's own file out of the folder, so that the folder can go now: into
// %TEMP%, or beside the folder when %TEMP% is on another volume; deleted once it has ended.
// Wine cannot rename a running program's file: then the folder, when nothing else is left in it,
// takes a plain name and goes with the file; else the file is deleted in place, unless a new
// installation has been put there meanwhile.
void removeSelf(const std::wstring &self, const std::wstring &folder, const Log &log)
{
    wchar_t temp[MAX_PATH];
    const std::wstring name =
        L"Corvalen-uninstall-" + std::to_wstring(GetCurrentProcessId()) + L".tmp";
    for (const std::wstring &to :
         {std::wstring(temp, GetTempPathW(MAX_PATH, temp)) + name, parentOf(folder) + L"\\" + name})
        if (MoveFileExW(self.c_str(), to.c_str(), MOVEFILE_REPLACE_EXISTING)) {
            if (!deleteAfterExit(parentOf(to), name, false))
                log(L"uninstall: " + to + L" stays: no command interpreter" + lastError());
            return;
        }
    log(L"uninstall: " + self + L" stays in the folder until the uninstaller has ended" +
        lastError());
    const std::wstring file = self.substr(self.find_last_of(L'\\') + 1);
    bool alone = true;
    winutil::forEachEntry(folder, [&](const WIN32_FIND_DATAW &entry) {
        alone = alone && lower(entry.cFileName) == lower(file);
    });
    const std::wstring renamed = parentOf(folder) + L"\\" + name.substr(0, name.size() - 4);
    const bool ok = alone && MoveFileExW(folder.c_str(), renamed.c_str(), 0)
                        ? deleteAfterExit(renamed, file, true)
                        : deleteAfterExit(folder, file, false, kFileList);
    if (!ok)
        log(L"uninstall: " + self + L" stays" + lastError());
}

// After the point of no return: what the run leaves behind goes. Safe to repeat.
bool finish(const Record &record, const std::vector<Fields> &lines, const Log &log)
{
    std::set<std::wstring> emptied; // the folders the old version's files left
    std::wstring self;
    for (const Fields &f : lines) {
        if (f[0] == L"move" && f.size() == 3 && winutil::isInside(f[2], record.work()))
            for (std::wstring up = parentOf(f[1]); winutil::isInside(up, record.folder);
                 up = parentOf(up))
                emptied.insert(up);
        if (f[0] == L"previous" && f.size() == 2 && isDirectory(f[1])) {
            hook(L"remove the earlier copy " + f[1]);
            log(L"removing the earlier copy in " + f[1]);
            removeListed(f[1], log);
        }
        if (f[0] == L"remnant" && f.size() == 2 && (hook(L"remove " + f[1]), !removeTree(f[1])))
            log(L"could not remove " + f[1] + L" yet" + lastError());
        if (f[0] == L"self" && f.size() == 2 && exists(f[1]))
            self = f[1];
    }
    hook(L"remove " + record.work());
    const bool ok = removeTree(record.work());
    if (!ok)
        log(L"could not remove all of " + record.work() + L"; the next run removes the rest");
    for (auto it = emptied.rbegin(); it != emptied.rend(); ++it)
        removeFolder(*it);
    if (std::any_of(lines.begin(), lines.end(), [](const Fields &f) { return f[0] == L"gone"; }))
        removeFolder(record.folder);
    // Last: nothing may hold the folder while the interpreter that deletes the file enters it.
    if (!self.empty() && !hook(L"remove " + self))
        removeSelf(self, record.folder, log);
    return ok;
}

std::wstring newRunId()
{
    LARGE_INTEGER now;
    QueryPerformanceCounter(&now);
    wchar_t text[17];
    wsprintfW(text, L"%08x%08x", GetCurrentProcessId(), DWORD(now.QuadPart ^ (now.QuadPart >> 32)));
    return text;
}

// Undoes or finishes the recorded run; the record goes once nothing of it is left.
bool settle(const Record &record, const Log &log)
{
    const std::vector<Fields> lines = readJournal(record.journal());
    if (!journalIsOwn(lines, record)) {
        log(L"recover: the journal in " + record.work() + L" names paths outside " + record.folder +
            L"; left as it is");
        dropRecord();
        return false;
    }
    if (isCommitted(lines)) {
        if (!finish(record, lines, log))
            return true; // the new version is in place; the rest is for the next run
    } else {
        if (!undo(lines, 0, log))
            return false;
        removeTree(record.work());
        removeCreatedFolders(record);
    }
    hook(L"drop the record");
    dropRecord();
    return true;
}

} // namespace

Settings &settings()
{
    static Settings instance;
    return instance;
}

bool isPlainRelativePath(const std::wstring &path)
{
    if (path.empty() || path.size() > 32000 || path.front() == L'\\' || path.back() == L'\\')
        return false;
    for (const std::wstring &part : split(path, L'\\'))
        if (part.empty() || part == L"." || part == L".." || part.back() == L'.' ||
            part.back() == L' ' || std::any_of(part.begin(), part.end(), [](wchar_t c) {
                return c < 32 || wcschr(L"<>:\"/|?*", c) != nullptr;
            }))
            return false;
    return true;
}

FileList readFileList(const std::wstring &folder, const Log &log)
{
    FileList list;
    const std::wstring path = folder + L"\\" + kFileList;
    if (!exists(path))
        return list;
    list.present = true;
    list.files.push_back(kFileList);
    for (const std::wstring &raw : split(winutil::fromUtf8(winutil::readFile(path)), L'\n')) {
        std::wstring line = raw;
        if (!line.empty() && line.back() == L'\r')
            line.pop_back();
        if (line.empty())
            continue;
        const bool isFolder = line.back() == L'\\';
        const std::wstring entry = isFolder ? line.substr(0, line.size() - 1) : line;
        if (!isPlainRelativePath(entry))
            log(L"ignored in " + path + L": \"" + line + L"\", not a plain path below the folder");
        else
            (isFolder ? list.folders : list.files).push_back(entry);
    }
    return list;
}

bool removeTree(const std::wstring &path)
{
    const DWORD attributes = winutil::attributesOf(path);
    if (attributes == INVALID_FILE_ATTRIBUTES)
        return true;
    SetFileAttributesW(withLongPrefix(path).c_str(), FILE_ATTRIBUTE_NORMAL);
    if (!(attributes & FILE_ATTRIBUTE_DIRECTORY))
        return DeleteFileW(withLongPrefix(path).c_str()) != 0;
    bool ok = true;
    if (!(attributes & FILE_ATTRIBUTE_REPARSE_POINT)) // a link to a folder goes, not its target
        winutil::forEachEntry(path, [&](const WIN32_FIND_DATAW &entry) {
            ok = removeTree(path + L"\\" + entry.cFileName) && ok;
        });
    return removeFolder(path) && ok;
}

std::wstring begin(const std::wstring &target, const Log &log)
{
    g_run.close();
    Record record, earlier;
    // A committed run whose clean-up could not finish (a file held): this run removes the rest.
    std::wstring remnant;
    if (readRecord(earlier)) {
        if (!isCommitted(readJournal(earlier.journal()))) {
            log(L"begin: the run " + earlier.run + L" in " + earlier.folder + L" is unfinished");
            return std::wstring();
        }
        remnant = earlier.work();
    }
    const std::wstring folder = winutil::fullPath(target);
    if (!winutil::isAbsolute(folder)) {
        log(L"begin: \"" + target + L"\" is not a folder's full path");
        return std::wstring();
    }
    record.run = newRunId();
    record.folder = folder;
    for (std::wstring up = folder; !up.empty() && !exists(up) && parentOf(up) != up;
         up = parentOf(up))
        record.created = up;
    const auto fail = [&](const std::wstring &what, DWORD error) {
        log(L"begin: " + what + winutil::errorText(error));
        abort(log);
        return std::wstring();
    };
    if (const DWORD error = hook(L"record the run"))
        return fail(L"could not record the run", error);
    if (const LSTATUS status = writeRecord(record))
        return fail(L"could not record the run in HKCU\\" + settings().key, DWORD(status));
    g_run.record = record;
    g_run.active = true;
    if (const DWORD error = hook(L"create " + folder))
        return fail(L"could not create " + folder, error);
    if (!createFolders(folder))
        return fail(L"could not create " + folder, GetLastError());
    if (const DWORD error = hook(L"create " + record.work()))
        return fail(L"could not create " + record.work(), error);
    if (!createFolder(record.work()))
        return fail(L"could not create " + record.work(), GetLastError());
    SetFileAttributesW(withLongPrefix(record.work()).c_str(), FILE_ATTRIBUTE_HIDDEN);
    g_run.journal = CreateFileW(withLongPrefix(record.journal()).c_str(), GENERIC_WRITE,
                                FILE_SHARE_READ | FILE_SHARE_DELETE, nullptr, CREATE_NEW,
                                FILE_ATTRIBUTE_NORMAL, nullptr);
    if (g_run.journal == INVALID_HANDLE_VALUE)
        return fail(L"could not create " + record.journal(), GetLastError());
    if (!remnant.empty())
        g_run.write({L"remnant", remnant});
    if (!createFolder(g_run.stage()))
        return fail(L"could not create " + g_run.stage(), GetLastError());
    log(L"begin: run " + record.run + L" in " + folder);
    return g_run.stage();
}

Result commit(const Plan &plan, const Log &log)
{
    if (!g_run.active) {
        log(L"commit: no run begun");
        return Result::Failed;
    }
    const std::wstring &folder = g_run.record.folder;
    LARGE_INTEGER start = {}, zero = {};
    SetFilePointerEx(g_run.journal, zero, &start, FILE_CURRENT);
    const std::size_t before = readJournal(g_run.record.journal()).size();
    const FileList oldList = readFileList(folder, log);
    const Owned owned(oldList);
    std::wstring self = plan.self.empty() ? std::wstring() : winutil::fullPath(plan.self);
    DWORD error = 0;
    std::wstring failed;
    const auto step = [&](const std::wstring &what, const auto &action) {
        if (!error && (error = action()))
            failed = what;
    };
    // With no list of ours the uninstaller is not known to be ours either: it stays.
    if (!self.empty() && winutil::isInside(self, folder) && oldList.present)
        step(L"note the uninstaller", [&] { return g_run.write({L"self", self}); });
    else
        self.clear();
    step(L"move the old version's files out", [&] { return moveOldOut(folder, L"", owned, self); });
    if (!plan.uninstall)
        step(L"move the new version's files in",
             [&] { return moveNewIn(folder, L"", owned, log); });
    for (const RegistryValue &value : plan.values)
        step(L"write the registry value " + value.key + L"\\" + value.name,
             [&] { return applyValue(value); });
    for (const std::wstring &key : plan.removedKeys) {
        for (const std::wstring &name : valueNames(key))
            if (!(winutil::samePath(key, settings().key) &&
                  winutil::samePath(name, settings().value)))
                step(L"remove the registry value " + key + L"\\" + name, [&] {
                    return applyValue({key, name, REG_NONE, {}});
                });
        step(L"remove the registry key " + key, [&] {
            HKEY handle = nullptr;
            if (RegOpenKeyExW(HKEY_CURRENT_USER, key.c_str(), 0, KEY_READ, &handle))
                return DWORD(0);
            RegCloseKey(handle);
            const DWORD e = g_run.write({L"dropkey", key});
            return e ? e : hook(L"dropkey " + key);
        });
        if (!error)
            dropKeyIfEmpty(key);
    }
    for (std::size_t i = 0; i < plan.shortcuts.size(); ++i)
        step(L"write the shortcut " + plan.shortcuts[i].path,
             [&] { return applyShortcut(plan.shortcuts[i], int(i)); });
    if (!plan.previousFolder.empty())
        step(L"note the earlier copy", [&] {
            return g_run.write({L"previous", winutil::fullPath(plan.previousFolder)});
        });
    if (plan.uninstall)
        step(L"note the folder", [&] { return g_run.write({L"gone"}); });
    const bool cancelled = !error && plan.stillWanted && !plan.stillWanted();
    step(L"commit", [&] {
        const DWORD e = cancelled ? 0 : hook(L"commit");
        return e ? e : cancelled ? DWORD(ERROR_CANCELLED) : g_run.write({L"committed"});
    });
    if (error) {
        if (!cancelled)
            log(L"commit: could not " + failed + winutil::errorText(error));
        if (!undo(readJournal(g_run.record.journal()), before, log)) {
            log(L"commit: the folder is left for the next run to put right");
            g_run.close();
            return Result::Failed;
        }
        SetFilePointerEx(g_run.journal, start, nullptr, FILE_BEGIN);
        SetEndOfFile(g_run.journal);
        if (cancelled)
            return Result::Cancelled;
        return transient(error) ? Result::Locked : Result::Failed;
    }
    log(L"commit: run " + g_run.record.run + L" committed in " + folder);
    const Record record = g_run.record;
    g_run.close();
    if (finish(record, readJournal(record.journal()), log))
        dropRecord();
    return Result::Done;
}

bool abort(const Log &log)
{
    if (!g_run.active)
        return true;
    const Record record = g_run.record;
    g_run.close();
    return settle(record, log);
}

bool recover(const Log &log)
{
    g_run.close();
    Record record;
    if (!readRecord(record)) {
        DWORD type = 0;
        std::vector<BYTE> data;
        if (readValue(settings().key, settings().value, type, data)) {
            log(L"recover: the record of an earlier run cannot be read; dropped");
            dropRecord();
        }
        return true;
    }
    log(L"recover: run " + record.run + L" in " + record.folder + L" ended on the way");
    return settle(record, log);
}

void removeOwnCopy(const Log &log)
{
    wchar_t path[MAX_PATH * 2];
    const std::wstring self(path, GetModuleFileNameW(nullptr, path, DWORD(std::size(path))));
    const std::wstring folder = parentOf(self), file = self.substr(folder.size() + 1);
    if (lower(folder).find(L"\\~nsu") != std::wstring::npos && !deleteAfterExit(folder, file, true))
        log(L"uninstall: " + self + L" stays" + lastError());
}

} // namespace transaction
