// The other side of the X11 tests: creates a window, prints its id, and prints every posted
// message it receives as "msg wParam lParam window" until it gets message 1 or times out.
// Usage: os_peer [--map] [--title TEXT]
#include "os/os.h"

#include <xcb/xcb.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <memory>
#include <poll.h>
#include <string>

int main(int argc, char **argv)
{
    bool map = false;
    std::string title;
    for (int i = 1; i < argc; ++i) {
        if (std::strcmp(argv[i], "--map") == 0)
            map = true;
        else if (std::strcmp(argv[i], "--title") == 0 && i + 1 < argc)
            title = argv[++i];
    }
    xcb_connection_t *c = xcb_connect(nullptr, nullptr);
    if (xcb_connection_has_error(c))
        return 2;
    xcb_screen_t *screen = xcb_setup_roots_iterator(xcb_get_setup(c)).data;
    const xcb_window_t window = xcb_generate_id(c);
    const uint32_t mask = XCB_CW_EVENT_MASK;
    const uint32_t values[] = {XCB_EVENT_MASK_STRUCTURE_NOTIFY};
    xcb_create_window(c, XCB_COPY_FROM_PARENT, window, screen->root, 0, 0, 50, 50, 0,
                      XCB_WINDOW_CLASS_INPUT_OUTPUT, screen->root_visual, mask, values);
    if (!title.empty()) {
        auto atom = [c](const char *name) {
            std::unique_ptr<xcb_intern_atom_reply_t, decltype(&std::free)> r(
                xcb_intern_atom_reply(c, xcb_intern_atom(c, 0, std::strlen(name), name), nullptr),
                &std::free);
            return r ? r->atom : static_cast<xcb_atom_t>(XCB_ATOM_NONE);
        };
        xcb_change_property(c, XCB_PROP_MODE_REPLACE, window, atom("_NET_WM_NAME"),
                            atom("UTF8_STRING"), 8, title.size(), title.data());
    }
    if (map)
        xcb_map_window(c, window);
    std::unique_ptr<xcb_intern_atom_reply_t, decltype(&std::free)> posted(
        xcb_intern_atom_reply(c, xcb_intern_atom(c, 0, 24, "_CORVALEN_POSTED_MESSAGE"), nullptr),
        &std::free);
    xcb_flush(c);
    std::printf("%u\n", window);
    std::fflush(stdout);

    const std::time_t deadline = std::time(nullptr) + 20;
    pollfd pfd{xcb_get_file_descriptor(c), POLLIN, 0};
    while (std::time(nullptr) < deadline) {
        poll(&pfd, 1, 100);
        while (xcb_generic_event_t *event = xcb_poll_for_event(c)) {
            const auto type = event->response_type & 0x7f;
            if (type == XCB_UNMAP_NOTIFY) {
                std::printf("unmapped\n");
                std::fflush(stdout);
            }
            const auto message = os::decodeClientMessage(event, sizeof(xcb_client_message_event_t),
                                                         posted ? posted->atom : 0);
            std::free(event);
            if (!message)
                continue;
            std::printf("%u %llu %lld %lu\n", message->message,
                        static_cast<unsigned long long>(message->wParam),
                        static_cast<long long>(message->lParam),
                        static_cast<unsigned long>(message->window));
            std::fflush(stdout);
            if (message->message == 1) {
                xcb_disconnect(c);
                return 0;
            }
        }
        if (xcb_connection_has_error(c))
            break;
    }
    xcb_disconnect(c);
    return 1;
}
