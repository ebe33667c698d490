// The eight positional arguments the installer engine passes, parsed into the launch
// parameters of Global.
#pragma once

#include <QString>

#include <cstdint>

namespace LaunchParams {

constexpr int kArgumentCount = 8;

// QString::toInt in base 10 of the local 8-bit text: 0 for anything that is not a base-10
// signed 32-bit integer (hexadecimal, out of range, words, empty).
std::int32_t toInt32(const char *arg);
QString toText(const char *arg);

// Parses argument `index` (1..8) of argv into its launch parameter, or stores its default when
// argc does not reach it, and logs the stored value.
void parseArgument(int index, int argc, char **argv);

} // namespace LaunchParams
