// The application suite's executables, in the order their processes are ended: the front
// end's running-application check and the installer's own (installer/plugin) both read it.
#pragma once

inline constexpr const char *kAppSuiteExecutables[] = {"Tandemo.exe", "Skeinpad.exe",
                                                       "Lumaslate.exe", "Ferrilog.exe",
                                                       "TandemoSvc.exe"};
