// The other process of the os tests, alike on both platforms. Appends lines to FILE:
//   os_peer FILE window [--show] [--title TEXT...]  a top-level window: "hwnd N", then one
//       "msg wParam lParam window" line per posted message, and "hidden" once it is hidden
//   os_peer FILE mutex NAME                         "created" or "exists", then holds it
// The title takes the rest of the line: the Linux side splits command lines at blanks.
// The peer never ends by itself before 30 s; the tests kill it.
#include "os/os.h"

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <thread>

#ifdef _WIN32
#include <windows.h>
#else
#include <unistd.h>
#include <xcb/xcb.h>
#endif

namespace {

const char *g_file = nullptr;

void say(const std::string &line)
{
    if (FILE *f = std::fopen(g_file, "a")) {
        std::fprintf(f, "%s\n", line.c_str());
        std::fclose(f);
    }
}

// Decoded the way the front end's native-event hook decodes what Qt hands it.
void report(const void *record)
{
    if (const auto m = os::realPlatform().decodeNativeMessage(record, os::kNativeMessageRecordSize))
        say(std::to_string(m->message) + " " + std::to_string(m->wParam) + " " +
            std::to_string(m->lParam) + " " + std::to_string(m->window));
}

#ifdef _WIN32
LRESULT CALLBACK windowProc(HWND hwnd, UINT message, WPARAM wParam, LPARAM lParam)
{
    if (message == WM_SHOWWINDOW && !wParam)
        say("hidden");
    return DefWindowProcA(hwnd, message, wParam, lParam);
}

int runWindow(const std::string &title, bool show)
{
    const WNDCLASSA wc{0,       windowProc, 0,       0,       GetModuleHandleA(nullptr),
                       nullptr, nullptr,    nullptr, nullptr, "CorvalenOsPeer"};
    RegisterClassA(&wc);
    HWND hwnd = CreateWindowA(wc.lpszClassName, title.c_str(), WS_OVERLAPPEDWINDOW, 0, 0, 100, 100,
                              nullptr, nullptr, wc.hInstance, nullptr);
    ShowWindow(hwnd, show ? SW_SHOW : SW_HIDE);
    say("hwnd " + std::to_string(reinterpret_cast<std::uintptr_t>(hwnd)));
    SetTimer(nullptr, 0, 30000, nullptr);
    MSG msg;
    while (GetMessageA(&msg, nullptr, 0, 0) > 0 && msg.message != WM_TIMER) {
        if (msg.message >= WM_USER)
            report(&msg);
        DispatchMessageA(&msg);
    }
    return 1;
}
#else
int runWindow(const std::string &title, bool show)
{
    alarm(30);
    xcb_connection_t *c = xcb_connect(nullptr, nullptr);
    // Replies are not freed: the peer only ends by a signal.
    const auto atom = [c](const char *name) {
        return xcb_intern_atom_reply(c, xcb_intern_atom(c, 0, std::strlen(name), name), nullptr)
            ->atom;
    };
    const xcb_screen_t *screen = xcb_setup_roots_iterator(xcb_get_setup(c)).data;
    const xcb_window_t window = xcb_generate_id(c);
    const std::uint32_t events = XCB_EVENT_MASK_STRUCTURE_NOTIFY;
    xcb_create_window(c, XCB_COPY_FROM_PARENT, window, screen->root, 0, 0, 50, 50, 0,
                      XCB_WINDOW_CLASS_INPUT_OUTPUT, screen->root_visual, XCB_CW_EVENT_MASK,
                      &events);
    xcb_change_property(c, XCB_PROP_MODE_REPLACE, window, atom("_NET_WM_NAME"), atom("UTF8_STRING"),
                        8, title.size(), title.data());
    if (show)
        xcb_map_window(c, window);
    // A round trip: the window is there (and mapped) before the test hears of it.
    xcb_get_input_focus_reply(c, xcb_get_input_focus(c), nullptr);
    say("hwnd " + std::to_string(window));
    while (xcb_generic_event_t *event = xcb_wait_for_event(c)) {
        if ((event->response_type & 0x7f) == XCB_UNMAP_NOTIFY)
            say("hidden");
        report(event);
        std::free(event);
    }
    return 1;
}
#endif

} // namespace

int main(int argc, char **argv)
{
    if (argc < 3)
        return 2;
    g_file = argv[1];
    if (std::strcmp(argv[2], "mutex") == 0 && argc == 4) {
        const char *answers[] = {"created", "exists", "failed"}; // in MutexResult's order
        say(answers[static_cast<int>(os::realPlatform().createNamedMutex(argv[3]))]);
        std::this_thread::sleep_for(std::chrono::seconds(60));
        return 0;
    }
    bool show = false;
    std::string title;
    for (int i = 3; i < argc; ++i)
        if (std::strcmp(argv[i], "--title") == 0)
            for (const char *space = ""; ++i < argc; space = " ")
                title.append(space).append(argv[i]);
        else
            show = show || std::strcmp(argv[i], "--show") == 0;
    return runWindow(title, show);
}
