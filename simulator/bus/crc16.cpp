#include "crc16.h"

namespace sim {

namespace {
constexpr unsigned initialCrc = 0xFFFF;
constexpr unsigned polynomial = 0xA001;
constexpr int minFrameLength = 4;

unsigned addByte(unsigned crc, quint8 byte)
{
    crc ^= byte;
    for (int bit = 0; bit < 8; ++bit)
        crc = (crc & 1U) != 0 ? (crc >> 1) ^ polynomial : crc >> 1;
    return crc;
}
} // namespace

quint16 crc16(const QByteArray &bytes)
{
    unsigned crc = initialCrc;
    for (const char byte : bytes)
        crc = addByte(crc, static_cast<quint8>(byte));
    return static_cast<quint16>(crc);
}

QByteArray withCrc(const QByteArray &bytes)
{
    const quint16 crc = crc16(bytes);
    QByteArray frame = bytes;
    frame.append(static_cast<char>(crc & 0xFF));
    frame.append(static_cast<char>(crc >> 8));
    return frame;
}

bool hasValidCrc(const QByteArray &frame)
{
    return frame.size() >= minFrameLength && withCrc(frame.chopped(2)) == frame;
}

} // namespace sim
