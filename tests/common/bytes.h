#pragma once

#include <QByteArray>
#include <QtGlobal>

// Little-endian fields written into hand-made disc structures.
namespace Bytes {

inline void Put16(QByteArray& bytes, int at, quint16 value)
{
    bytes[at] = char(value & 0xFF);
    bytes[at + 1] = char(value >> 8);
}

inline void Put32(QByteArray& bytes, int at, quint32 value)
{
    for (int i = 0; i < 4; ++i)
        bytes[at + i] = char((value >> (8 * i)) & 0xFF);
}

} // namespace Bytes
