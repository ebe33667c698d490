// The Linux stand-ins' X side: the layer's own connection, window properties, and the
// client-message records that carry posted messages.
#include "os/os_linux_p.h"

#include <cstdlib>
#include <cstring>
#include <memory>

namespace os {

const std::size_t kNativeMessageRecordSize = sizeof(xcb_client_message_event_t);

std::optional<NativeMessage> decodeClientMessage(const void *record, std::size_t size,
                                                 std::uint32_t postedMessageAtom)
{
    if (!record || size < sizeof(xcb_client_message_event_t))
        return std::nullopt;
    xcb_client_message_event_t event;
    std::memcpy(&event, record, sizeof(event));
    // The high bit marks an event that came through SendEvent, which ours always do.
    if ((event.response_type & 0x7f) != XCB_CLIENT_MESSAGE || event.format != 32 ||
        event.type != postedMessageAtom || postedMessageAtom == XCB_ATOM_NONE)
        return std::nullopt;
    NativeMessage message;
    message.window = event.window;
    message.message = event.data.data32[0];
    message.wParam =
        std::uint64_t(event.data.data32[1]) | (std::uint64_t(event.data.data32[2]) << 32);
    message.lParam = static_cast<std::int64_t>(std::uint64_t(event.data.data32[3]) |
                                               (std::uint64_t(event.data.data32[4]) << 32));
    message.privateCarrier = true;
    return message;
}

namespace linux_detail {

XConnection &XConnection::instance()
{
    static XConnection connection;
    return connection;
}

xcb_connection_t *XConnection::get()
{
    std::call_once(m_once, [this] { open(); });
    return m_connection;
}

std::uint32_t XConnection::postedMessageAtom()
{
    get();
    return m_atom;
}

void XConnection::open()
{
    if (!std::getenv("DISPLAY"))
        return;
    xcb_connection_t *c = xcb_connect(nullptr, nullptr);
    if (xcb_connection_has_error(c)) {
        xcb_disconnect(c);
        return;
    }
    m_connection = c;
    m_atom = internAtom(kPostedMessageAtom);
}

std::uint32_t XConnection::internAtom(const char *name)
{
    if (!m_connection)
        return XCB_ATOM_NONE;
    xcb_intern_atom_cookie_t cookie =
        xcb_intern_atom(m_connection, 0, static_cast<uint16_t>(std::strlen(name)), name);
    std::unique_ptr<xcb_intern_atom_reply_t, decltype(&std::free)> reply(
        xcb_intern_atom_reply(m_connection, cookie, nullptr), &std::free);
    return reply ? reply->atom : static_cast<std::uint32_t>(XCB_ATOM_NONE);
}

std::string windowProperty(xcb_connection_t *c, xcb_window_t window, xcb_atom_t property,
                           xcb_atom_t type, std::size_t limit)
{
    const uint32_t longs = static_cast<uint32_t>((limit + 3) / 4);
    xcb_get_property_cookie_t cookie = xcb_get_property(c, 0, window, property, type, 0, longs);
    std::unique_ptr<xcb_get_property_reply_t, decltype(&std::free)> reply(
        xcb_get_property_reply(c, cookie, nullptr), &std::free);
    if (!reply || reply->format != 8)
        return std::string();
    const int length = xcb_get_property_value_length(reply.get());
    std::string value(static_cast<const char *>(xcb_get_property_value(reply.get())),
                      static_cast<std::size_t>(length));
    if (value.size() > limit)
        value.resize(limit);
    return value;
}

} // namespace linux_detail

} // namespace os
