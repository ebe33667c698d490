// What the Linux stand-ins' three files share: os_linux.cpp (the platform), os_linux_proc.cpp
// (/proc and the program search), os_linux_x11.cpp (the X connection).
#pragma once

#include "os/os.h"

#include <xcb/xcb.h>

#include <cstddef>
#include <cstdint>
#include <mutex>
#include <string>
#include <vector>

namespace os::linux_detail {

constexpr std::size_t kTextLimit = 4095; // a 4096-byte buffer with its terminating zero
constexpr char kPostedMessageAtom[] = "_CORVALEN_POSTED_MESSAGE";

// Fields between separators; with skipEmpty, runs of separators count as one.
std::vector<std::string> splitText(const std::string &text, const char *separators, bool skipEmpty);
// The name a process runs under: the executable's file name, else argv[0] (a renamed copy run
// through a symlink or an interpreter), else comm, which the kernel cuts at 15 bytes.
std::string processExeName(const std::string &pidDir);
// State Z (zombie) or X (dead), or gone: the state follows the ")" that closes the name.
bool hasEnded(const std::string &pidDir);
// CreateProcessA's search for the first token: the program's own directory, the current
// directory, then PATH. A token with a slash is taken as it is.
std::string findProgram(const std::string &name);

// The layer's own X connection, opened on first use and kept for the life of the process.
class XConnection
{
public:
    static XConnection &instance();
    xcb_connection_t *get();
    std::uint32_t postedMessageAtom();
    std::uint32_t internAtom(const char *name);

private:
    void open();
    std::once_flag m_once;
    xcb_connection_t *m_connection = nullptr;
    std::uint32_t m_atom = XCB_ATOM_NONE;
};

// One property of a window as bytes; empty when missing or the window is gone.
std::string windowProperty(xcb_connection_t *c, xcb_window_t window, xcb_atom_t property,
                           xcb_atom_t type, std::size_t limit);

} // namespace os::linux_detail
