#include "checks.h"

#include "transaction.h"
#include "winutil.h"

#include <windows.h>

#include <knownfolders.h>
#include <sddl.h>
#include <shlobj.h>

#include <algorithm>
#include <climits>

namespace checks {

Account classifyAccount(const std::wstring &sid, int elevationType)
{
    // LocalSystem, LocalService, NetworkService.
    if (sid == L"S-1-5-18" || sid == L"S-1-5-19" || sid == L"S-1-5-20")
        return Account::System;
    return elevationType == TokenElevationTypeFull ? Account::Elevated : Account::User;
}

Account currentAccount(std::wstring *sid)
{
    HANDLE token = nullptr;
    std::wstring user;
    TOKEN_ELEVATION_TYPE type = TokenElevationTypeDefault;
    if (OpenProcessToken(GetCurrentProcess(), TOKEN_QUERY, &token)) {
        BYTE buffer[512];
        DWORD size = 0;
        wchar_t *text = nullptr;
        if (GetTokenInformation(token, TokenUser, buffer, sizeof buffer, &size) &&
            ConvertSidToStringSidW(reinterpret_cast<TOKEN_USER *>(buffer)->User.Sid, &text)) {
            user = text;
            LocalFree(text);
        }
        GetTokenInformation(token, TokenElevationType, &type, sizeof type, &size);
        CloseHandle(token);
    }
    if (sid)
        *sid = user;
    return classifyAccount(user, type);
}

Version compareInstalled(const std::wstring &installed, const std::wstring &ours)
{
    const auto parse = [](const std::wstring &text, long long(&parts)[4]) {
        std::size_t start = 0;
        for (int i = 0; i < 4; ++i) {
            const std::size_t end = i < 3 ? text.find(L'.', start) : text.size();
            if (end == std::wstring::npos || end == start || end - start > 10)
                return false;
            parts[i] = 0;
            for (std::size_t c = start; c < end; ++c) {
                if (text[c] < L'0' || text[c] > L'9')
                    return false;
                parts[i] = parts[i] * 10 + (text[c] - L'0');
            }
            if (parts[i] > INT_MAX)
                return false;
            start = end + 1;
        }
        return true;
    };
    long long a[4], b[4];
    if (!parse(installed, a) || !parse(ours, b))
        return Version::Invalid;
    for (int i = 0; i < 4; ++i)
        if (a[i] != b[i])
            return a[i] > b[i] ? Version::Newer : Version::Older;
    return Version::Same;
}

namespace {

bool isRoot(const std::wstring &path)
{
    if (path.size() <= 3 && path.size() >= 2 && path[1] == L':')
        return true;
    // "\\server\share" and less
    return path.compare(0, 2, L"\\\\") == 0 && std::count(path.begin() + 2, path.end(), L'\\') <= 1;
}

} // namespace

Folder inspectFolder(const std::wstring &folder, const std::wstring &registered,
                     const std::vector<std::wstring> &protectedFolders)
{
    const std::wstring path = winutil::fullPath(folder);
    if (isRoot(path) ||
        std::any_of(protectedFolders.begin(), protectedFolders.end(), [&](const auto &known) {
            return winutil::samePath(path, known) || winutil::isInside(known, path);
        }))
        return Folder::Protected;
    if (!registered.empty() && !winutil::samePath(path, registered) &&
        (winutil::isInside(path, registered) || winutil::isInside(registered, path)))
        return Folder::Nested;
    const DWORD attributes = winutil::attributesOf(path);
    if (attributes == INVALID_FILE_ATTRIBUTES)
        return Folder::Absent;
    if (!(attributes & FILE_ATTRIBUTE_DIRECTORY))
        return Folder::File;
    if (winutil::exists(path + L"\\" + transaction::kFileList))
        return Folder::Installed;
    bool empty = true;
    winutil::forEachEntry(path, [&](const WIN32_FIND_DATAW &) { empty = false; });
    return empty ? Folder::Empty : Folder::Occupied;
}

std::vector<std::wstring> knownFolders()
{
    static const KNOWNFOLDERID *const ids[] = {
        &FOLDERID_Profile,          &FOLDERID_UserProfiles, &FOLDERID_Desktop,
        &FOLDERID_Documents,        &FOLDERID_Downloads,    &FOLDERID_Music,
        &FOLDERID_Pictures,         &FOLDERID_Videos,       &FOLDERID_Favorites,
        &FOLDERID_RoamingAppData,   &FOLDERID_LocalAppData, &FOLDERID_LocalAppDataLow,
        &FOLDERID_UserProgramFiles, &FOLDERID_StartMenu,    &FOLDERID_Programs,
        &FOLDERID_Startup,          &FOLDERID_ProgramFiles, &FOLDERID_ProgramFilesX86,
        &FOLDERID_ProgramData,      &FOLDERID_Public,       &FOLDERID_Windows,
        &FOLDERID_System,           &FOLDERID_SavedGames,   &FOLDERID_Links,
    };
    std::vector<std::wstring> out;
    for (const KNOWNFOLDERID *id : ids) {
        wchar_t *path = nullptr;
        if (SUCCEEDED(SHGetKnownFolderPath(*id, KF_FLAG_DONT_VERIFY, nullptr, &path)) && path)
            out.push_back(winutil::fullPath(path));
        CoTaskMemFree(path);
    }
    wchar_t temp[MAX_PATH];
    if (const DWORD n = GetTempPathW(MAX_PATH, temp))
        out.push_back(winutil::fullPath(std::wstring(temp, n)));
    return out;
}

} // namespace checks
