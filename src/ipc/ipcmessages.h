// Window messages between the installer engine and the front end; all WM_USER based.
#pragma once

#include <cstdint>

constexpr std::uint32_t WM_USER_BASE = 0x0400;

// Engine -> front end
constexpr std::uint32_t WM_MYPROGRESS = WM_USER_BASE + 100; // 1124, wParam: percent
constexpr std::uint32_t WM_DISK_SPACE =
    WM_USER_BASE + 104; // 1128, wParam: required MB, lParam: free MB
constexpr std::uint32_t WM_PATH_INFO =
    WM_USER_BASE + 105; // 1129, wParam: resolve, lParam: writable
// Both directions
constexpr std::uint32_t WM_COMPLETE_INSTALL = WM_USER_BASE + 102; // 1126
// Front end -> engine
constexpr std::uint32_t WM_INSTALL_PATH = WM_USER_BASE + 101;   // 1125, wParam: 0 path, 1 start
constexpr std::uint32_t WM_CANCEL_INSTALL = WM_USER_BASE + 103; // 1127
constexpr std::uint32_t WM_IPC_HWND = WM_USER_BASE + 200;       // 1224, wParam: our window

// The name a log gives a message; null for one that is not ours.
constexpr const char *messageName(std::uint32_t msg)
{
    switch (msg) {
    case WM_MYPROGRESS:
        return "WM_MYPROGRESS";
    case WM_INSTALL_PATH:
        return "WM_INSTALL_PATH";
    case WM_COMPLETE_INSTALL:
        return "WM_COMPLETE_INSTALL";
    case WM_CANCEL_INSTALL:
        return "WM_CANCEL_INSTALL";
    case WM_DISK_SPACE:
        return "WM_DISK_SPACE";
    case WM_PATH_INFO:
        return "WM_PATH_INFO";
    case WM_IPC_HWND:
        return "WM_IPC_HWND";
    default:
        return nullptr;
    }
}

// What the engine sends the front end.
constexpr bool isForFrontEnd(std::uint32_t msg)
{
    return msg == WM_PATH_INFO || msg == WM_MYPROGRESS || msg == WM_DISK_SPACE ||
           msg == WM_COMPLETE_INSTALL;
}
