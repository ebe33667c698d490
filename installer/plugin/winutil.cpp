#include "winutil.h"

#include <algorithm>
#include <cwctype>
#include <vector>

namespace winutil {

std::string toUtf8(const std::wstring &text)
{
    const int n = WideCharToMultiByte(CP_UTF8, 0, text.data(), int(text.size()), nullptr, 0,
                                      nullptr, nullptr);
    std::string out(std::size_t(std::max(n, 0)), '\0');
    WideCharToMultiByte(CP_UTF8, 0, text.data(), int(text.size()), out.data(), n, nullptr, nullptr);
    return out;
}

std::wstring fromUtf8(const std::string &text)
{
    const int n = MultiByteToWideChar(CP_UTF8, 0, text.data(), int(text.size()), nullptr, 0);
    std::wstring out(std::size_t(std::max(n, 0)), L'\0');
    MultiByteToWideChar(CP_UTF8, 0, text.data(), int(text.size()), out.data(), n);
    return out;
}

std::wstring lower(std::wstring text)
{
    // The file system's own case folding, not the locale's.
    if (!text.empty())
        CharLowerBuffW(text.data(), DWORD(text.size()));
    return text;
}

std::wstring errorText(DWORD error)
{
    wchar_t *message = nullptr;
    FormatMessageW(FORMAT_MESSAGE_ALLOCATE_BUFFER | FORMAT_MESSAGE_FROM_SYSTEM |
                       FORMAT_MESSAGE_IGNORE_INSERTS,
                   nullptr, error, 0, reinterpret_cast<wchar_t *>(&message), 0, nullptr);
    std::wstring text = message ? message : L"";
    LocalFree(message);
    while (!text.empty() && (text.back() == L'\n' || text.back() == L'\r' || text.back() == L' '))
        text.pop_back();
    return L" (error " + std::to_wstring(error) + (text.empty() ? L"" : L": " + text) + L")";
}

std::wstring lastError()
{
    return errorText(GetLastError());
}

std::wstring withLongPrefix(const std::wstring &path)
{
    if (path.size() < 3 || path.compare(0, 4, L"\\\\?\\") == 0)
        return path;
    if (path.compare(0, 2, L"\\\\") == 0)
        return L"\\\\?\\UNC\\" + path.substr(2);
    return path[1] == L':' ? L"\\\\?\\" + path : path;
}

std::wstring fullPath(const std::wstring &path)
{
    wchar_t buffer[32768];
    const DWORD n = GetFullPathNameW(path.c_str(), DWORD(std::size(buffer)), buffer, nullptr);
    std::wstring out = n > 0 && n < std::size(buffer) ? std::wstring(buffer, n) : path;
    std::replace(out.begin(), out.end(), L'/', L'\\');
    while (out.size() > 3 && out.back() == L'\\')
        out.pop_back();
    return out;
}

bool isAbsolute(const std::wstring &path)
{
    return (path.size() >= 3 && std::iswalpha(path[0]) && path[1] == L':' && path[2] == L'\\') ||
           (path.size() >= 3 && path.compare(0, 2, L"\\\\") == 0);
}

std::wstring parentOf(const std::wstring &path)
{
    const std::size_t cut = path.find_last_of(L'\\');
    if (cut == std::wstring::npos || cut + 1 == path.size())
        return path;
    return cut == 2 && path[1] == L':' ? path.substr(0, 3) : path.substr(0, cut);
}

bool samePath(const std::wstring &a, const std::wstring &b)
{
    return CompareStringOrdinal(a.c_str(), int(a.size()), b.c_str(), int(b.size()), TRUE) ==
           CSTR_EQUAL;
}

bool sameFolder(const std::wstring &a, const std::wstring &b)
{
    if (a.empty() || b.empty())
        return false;
    if (samePath(fullPath(a), fullPath(b)))
        return true;
    BY_HANDLE_FILE_INFORMATION info[2] = {};
    int known = 0;
    for (const std::wstring *path : {&a, &b}) {
        const HANDLE folder =
            CreateFileW(withLongPrefix(fullPath(*path)).c_str(), 0,
                        FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE, nullptr,
                        OPEN_EXISTING, FILE_FLAG_BACKUP_SEMANTICS, nullptr);
        if (folder == INVALID_HANDLE_VALUE)
            return false;
        known += GetFileInformationByHandle(folder, &info[known]) ? 1 : 0;
        CloseHandle(folder);
    }
    return known == 2 && info[0].dwVolumeSerialNumber == info[1].dwVolumeSerialNumber &&
           info[0].nFileIndexHigh == info[1].nFileIndexHigh &&
           info[0].nFileIndexLow == info[1].nFileIndexLow;
}

bool isInside(const std::wstring &path, const std::wstring &folder)
{
    const std::wstring prefix = folder.back() == L'\\' ? folder : folder + L"\\";
    return path.size() > prefix.size() && samePath(path.substr(0, prefix.size()), prefix);
}

DWORD attributesOf(const std::wstring &path)
{
    return GetFileAttributesW(withLongPrefix(path).c_str());
}

bool exists(const std::wstring &path)
{
    return attributesOf(path) != INVALID_FILE_ATTRIBUTES;
}

bool isDirectory(const std::wstring &path)
{
    const DWORD attributes = attributesOf(path);
    return attributes != INVALID_FILE_ATTRIBUTES && (attributes & FILE_ATTRIBUTE_DIRECTORY) &&
           !(attributes & FILE_ATTRIBUTE_REPARSE_POINT);
}

void forEachEntry(const std::wstring &folder,
                  const std::function<void(const WIN32_FIND_DATAW &)> &visit)
{
    // Read whole first: the visitor may move entries out of the folder.
    std::vector<WIN32_FIND_DATAW> entries;
    WIN32_FIND_DATAW entry;
    const HANDLE find = FindFirstFileW(withLongPrefix(folder + L"\\*").c_str(), &entry);
    if (find == INVALID_HANDLE_VALUE)
        return;
    do {
        if (wcscmp(entry.cFileName, L".") != 0 && wcscmp(entry.cFileName, L"..") != 0)
            entries.push_back(entry);
    } while (FindNextFileW(find, &entry));
    FindClose(find);
    for (const WIN32_FIND_DATAW &each : entries)
        visit(each);
}

std::string readFile(const std::wstring &path)
{
    std::string bytes;
    const HANDLE file = CreateFileW(withLongPrefix(path).c_str(), GENERIC_READ,
                                    FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE, nullptr,
                                    OPEN_EXISTING, 0, nullptr);
    if (file == INVALID_HANDLE_VALUE)
        return bytes;
    char buffer[65536];
    DWORD n = 0;
    while (ReadFile(file, buffer, sizeof buffer, &n, nullptr) && n > 0)
        bytes.append(buffer, n);
    CloseHandle(file);
    return bytes;
}

} // namespace winutil
