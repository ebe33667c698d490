// corvalen-unelevated.exe PROGRAM [ARGUMENTS]: runs PROGRAM as an unelevated user and ends with
// its exit code. Wine gives every process the full half of a split administrator token, as
// Windows does after "Run as administrator"; Explorer starts a user's programs with the limited
// half, and so does this, so that the Windows tiers can run the installer both ways.
#include <windows.h>

#include <cwchar>
#include <string>

int wmain()
{
    // The rest of the command line, verbatim: the program's own arguments as they were given.
    const wchar_t *rest = GetCommandLineW();
    const bool quoted = *rest == L'"';
    for (rest += quoted; *rest && (quoted ? *rest != L'"' : *rest != L' ' && *rest != L'\t');)
        ++rest;
    rest += quoted && *rest;
    while (*rest == L' ' || *rest == L'\t')
        ++rest;
    std::wstring commandLine(rest);
    if (commandLine.empty()) {
        fwprintf(stderr, L"usage: corvalen-unelevated PROGRAM [ARGUMENTS]\n");
        return 2;
    }
    HANDLE token = nullptr;
    TOKEN_LINKED_TOKEN linked = {};
    DWORD size = 0;
    TOKEN_ELEVATION_TYPE type = TokenElevationTypeDefault;
    if (!OpenProcessToken(GetCurrentProcess(), TOKEN_QUERY, &token) ||
        !GetTokenInformation(token, TokenElevationType, &type, sizeof type, &size)) {
        fwprintf(stderr, L"corvalen-unelevated: cannot read this process's token (%lu)\n",
                 GetLastError());
        return 2;
    }
    const bool split = type == TokenElevationTypeFull &&
                       GetTokenInformation(token, TokenLinkedToken, &linked, sizeof linked, &size);
    STARTUPINFOW startup = {};
    startup.cb = sizeof startup;
    PROCESS_INFORMATION process = {};
    const BOOL started =
        split ? CreateProcessAsUserW(linked.LinkedToken, nullptr, commandLine.data(), nullptr,
                                     nullptr, FALSE, 0, nullptr, nullptr, &startup, &process)
              : CreateProcessW(nullptr, commandLine.data(), nullptr, nullptr, FALSE, 0, nullptr,
                               nullptr, &startup, &process);
    if (!started) {
        fwprintf(stderr, L"corvalen-unelevated: cannot start %ls (%lu)\n", rest, GetLastError());
        return 2;
    }
    WaitForSingleObject(process.hProcess, INFINITE);
    DWORD code = 2;
    GetExitCodeProcess(process.hProcess, &code);
    return int(code);
}
