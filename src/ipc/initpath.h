// How the front end learns the install folder the engine proposes.
#pragma once

#include <QByteArray>
#include <QString>

#include <string>

namespace InitPath {

// The IPC file's bytes as UTF-16LE code units: a byte-order mark stays part of the text and a
// trailing odd byte is dropped.
QString decodeIpcFile(const QByteArray &bytes);

// A zero-terminated 8-bit buffer (window title, environment value) as text.
QString decodeLocal8Bit(const std::string &buffer);

} // namespace InitPath
