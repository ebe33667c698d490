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
