// The eight positional arguments: any bytes, split at zero bytes into argv.
#include "app/global.h"
#include "app/launchparams.h"

#include <QtGlobal>

#include <cstdint>
#include <string>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size)
{
    qInstallMessageHandler([](QtMsgType, const QMessageLogContext &, const QString &) {});
    std::vector<std::string> parts{"CorvalenSetup"};
    std::string current;
    for (std::size_t i = 0; i < size; ++i) {
        if (data[i] == 0) {
            parts.push_back(current);
            current.clear();
        } else {
            current.push_back(static_cast<char>(data[i]));
        }
    }
    parts.push_back(current);
    std::vector<char *> argv;
    for (std::string &p : parts)
        argv.push_back(p.data());
    argv.push_back(nullptr);
    for (int i = 1; i <= LaunchParams::kArgumentCount; ++i)
        LaunchParams::parseArgument(i, static_cast<int>(parts.size()), argv.data());
    // What was stored must be what the conversions give.
    if (parts.size() > 6 && Global::GetInstallerProcId() != LaunchParams::toInt32(argv[6]))
        __builtin_trap();
    return 0;
}
