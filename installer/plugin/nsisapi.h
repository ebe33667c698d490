// The NSIS plug-in interface as the Unicode engines (x86-unicode, amd64-unicode) call it: an
// exported cdecl function per command, arguments and results on the engine's string stack.
// Written from the plug-in interface the NSIS documentation describes (NSIS is under the
// zlib/libpng licence).
#pragma once

#include <windows.h>

#include <cwchar>
#include <string>

namespace nsis {

struct StackEntry
{
    StackEntry *next;
    wchar_t text[1]; // really `stringSize` characters
};

enum class PluginMessage
{
    Unload,
    GuiUnload
};
using PluginCallback = UINT_PTR (*)(PluginMessage);

struct ExtraParameters
{
    void *execFlags;
    int(__stdcall *executeCodeSegment)(int, HWND);
    void(__stdcall *validateFilename)(wchar_t *);
    // A plug-in that registers stays loaded until the installer ends.
    int(__stdcall *registerPluginCallback)(HMODULE, PluginCallback);
};

// One call's view of the stack.
class Stack
{
public:
    Stack(int stringSize, StackEntry **top) : m_size(stringSize), m_top(top) {}
    // The next argument; empty when the script gave fewer.
    std::wstring pop()
    {
        StackEntry *entry = m_top ? *m_top : nullptr;
        if (!entry)
            return std::wstring();
        std::wstring text(entry->text, wcsnlen(entry->text, std::size_t(m_size)));
        *m_top = entry->next;
        GlobalFree(entry);
        return text;
    }
    void push(const std::wstring &text)
    {
        if (!m_top || m_size <= 0)
            return;
        auto *entry = static_cast<StackEntry *>(
            GlobalAlloc(GPTR, sizeof(StackEntry) + std::size_t(m_size) * sizeof(wchar_t)));
        if (!entry)
            return;
        lstrcpynW(entry->text, text.c_str(), m_size);
        entry->next = *m_top;
        *m_top = entry;
    }

private:
    int m_size;
    StackEntry **m_top;
};

} // namespace nsis

#define NSIS_PLUGIN_FUNCTION(name)                                                                 \
    extern "C" __declspec(dllexport) void __cdecl name(HWND, int stringSize, wchar_t *,            \
                                                       nsis::StackEntry **stackTop,                \
                                                       nsis::ExtraParameters *extra)
