#include "ipc/initpath.h"

#include <cstring>

namespace InitPath {

QString decodeIpcFile(const QByteArray &bytes)
{
    const int units = bytes.size() / 2;
    QString text(units, Qt::Uninitialized);
    for (int i = 0; i < units; ++i) {
        const auto lo = static_cast<unsigned char>(bytes[2 * i]);
        const auto hi = static_cast<unsigned char>(bytes[2 * i + 1]);
        text[i] = QChar(static_cast<ushort>(lo | (hi << 8)));
    }
    return text;
}

QString decodeLocal8Bit(const std::string &buffer)
{
    return QString::fromLocal8Bit(buffer.c_str(), static_cast<int>(std::strlen(buffer.c_str())));
}

} // namespace InitPath
