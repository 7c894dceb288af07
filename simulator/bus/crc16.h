#pragma once

#include <QByteArray>

namespace sim {

/// The CRC-16 of Modbus RTU over `bytes`. It is 0xFFFF for no bytes.
quint16 crc16(const QByteArray &bytes);

/// Returns `bytes` followed by their CRC, low byte first.
QByteArray withCrc(const QByteArray &bytes);

/// Whether the last two bytes of `frame` are the CRC of the other bytes. False for less than 4
/// bytes.
bool hasValidCrc(const QByteArray &frame);

} // namespace sim
