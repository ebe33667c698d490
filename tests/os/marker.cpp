// A library that says it was loaded: put beside a program under the name of a system library,
// it must never be. It appends its own path to the file CORVALEN_MARKER names.
#include <windows.h>

BOOL WINAPI DllMain(HINSTANCE module, DWORD reason, LPVOID)
{
    wchar_t file[MAX_PATH], self[MAX_PATH];
    if (reason != DLL_PROCESS_ATTACH ||
        !GetEnvironmentVariableW(L"CORVALEN_MARKER", file, MAX_PATH))
        return TRUE;
    const DWORD n = GetModuleFileNameW(module, self, MAX_PATH);
    const HANDLE out = CreateFileW(file, FILE_APPEND_DATA, FILE_SHARE_READ | FILE_SHARE_WRITE,
                                   nullptr, OPEN_ALWAYS, 0, nullptr);
    DWORD written = 0;
    WriteFile(out, self, n * sizeof(wchar_t), &written, nullptr);
    CloseHandle(out);
    return TRUE;
}
