// The other side of the Windows tests. Writes what it sees to the file given first:
//   os_peer FILE window [--show] [--title TEXT]   a top-level window; "hwnd N", then one
//                                                  "msg wParam lParam hwnd" line per message
//   os_peer FILE mutex NAME                        "created" or "exists", then holds it
#include "os/os.h"

#include <windows.h>

#include <cstdio>
#include <cstring>
#include <string>

namespace {

void say(const char *file, const std::string &line)
{
    FILE *f = std::fopen(file, "a");
    if (!f)
        return;
    std::fprintf(f, "%s\n", line.c_str());
    std::fclose(f);
}

} // namespace

int main(int argc, char **argv)
{
    if (argc < 3)
        return 2;
    const char *file = argv[1];
    if (std::strcmp(argv[2], "mutex") == 0 && argc == 4) {
        const os::MutexResult r = os::realPlatform().createNamedMutex(argv[3]);
        say(file, r == os::MutexResult::Created         ? "created"
                  : r == os::MutexResult::AlreadyExists ? "exists"
                                                        : "failed");
        Sleep(60000);
        return 0;
    }
    bool show = false;
    std::string title;
    for (int i = 3; i < argc; ++i) {
        if (std::strcmp(argv[i], "--show") == 0)
            show = true;
        else if (std::strcmp(argv[i], "--title") == 0 && i + 1 < argc)
            title = argv[++i];
    }
    WNDCLASSA wc;
    std::memset(&wc, 0, sizeof(wc));
    wc.lpfnWndProc = DefWindowProcA;
    wc.hInstance = GetModuleHandleA(nullptr);
    wc.lpszClassName = "CorvalenOsPeer";
    RegisterClassA(&wc);
    HWND hwnd = CreateWindowA("CorvalenOsPeer", title.c_str(), WS_OVERLAPPEDWINDOW, 0, 0, 100, 100,
                              nullptr, nullptr, wc.hInstance, nullptr);
    if (!hwnd)
        return 3;
    if (show)
        ShowWindow(hwnd, SW_SHOW);
    say(file, "hwnd " + std::to_string(reinterpret_cast<std::uintptr_t>(hwnd)));
    SetTimer(nullptr, 0, 20000, nullptr); // give up eventually
    MSG msg;
    while (GetMessageA(&msg, nullptr, 0, 0) > 0) {
        if (msg.message == WM_TIMER)
            return 1;
        if (msg.message >= WM_USER) {
            const auto decoded =
                os::realPlatform().decodeNativeMessage(&msg, os::kNativeMessageRecordSize);
            if (decoded)
                say(file, std::to_string(decoded->message) + " " + std::to_string(decoded->wParam) +
                              " " + std::to_string(decoded->lParam) + " " +
                              std::to_string(decoded->window));
            if (msg.message == WM_USER + 1)
                return 0;
        }
        DispatchMessageA(&msg);
    }
    return 0;
}
