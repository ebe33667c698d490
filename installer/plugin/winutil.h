// Small Win32 helpers of the plug-in: paths, files and text. Paths are absolute and
// backslash-separated without a trailing backslash, but for a drive's root ("C:\").
#pragma once

#include <windows.h>

#include <functional>
#include <string>

namespace winutil {

std::string toUtf8(const std::wstring &text);
std::wstring fromUtf8(const std::string &text);
std::wstring lower(std::wstring text);

// " (error N: what Windows says of it)" for the code, or for GetLastError().
std::wstring errorText(DWORD error);
std::wstring lastError();

// With the \\?\ prefix, so that no path is cut at MAX_PATH.
std::wstring withLongPrefix(const std::wstring &path);
std::wstring fullPath(const std::wstring &path);
bool isAbsolute(const std::wstring &path);
// Without its last part; a root stays itself.
std::wstring parentOf(const std::wstring &path);
// Strictly inside `folder`, compared as Windows does, ignoring case.
bool isInside(const std::wstring &path, const std::wstring &folder);
bool samePath(const std::wstring &a, const std::wstring &b);
// The same folder, by its path or, reached another way (a link, a short name, another drive
// letter), by its identity on its volume.
bool sameFolder(const std::wstring &a, const std::wstring &b);

DWORD attributesOf(const std::wstring &path);
bool exists(const std::wstring &path);
// A folder, not a link to one.
bool isDirectory(const std::wstring &path);
// Every entry but "." and "..".
void forEachEntry(const std::wstring &folder,
                  const std::function<void(const WIN32_FIND_DATAW &)> &visit);
std::string readFile(const std::wstring &path);

} // namespace winutil
