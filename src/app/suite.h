// What the front end and the installer's plug-in (installer/plugin) both know of the suite.
#pragma once

// The application suite's executables, in the order their processes are ended: the front
// end's running-application check and the installer's own.
inline constexpr const char *kAppSuiteExecutables[] = {
    "Tandemo.exe", "Skeinpad.exe", "Lumaslate.exe", "Ferrilog.exe", "TandemoSvc.exe"};

// The front end's single-instance guard, machine-wide: the installer looks for it before it
// starts a front end that would end at once.
inline constexpr char kInstanceMutexName[] = "Global\\{C9810FB0-B51D-4513-8B16-57A42F7CF5B5}";
