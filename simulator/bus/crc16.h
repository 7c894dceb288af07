#pragma once

#include <QByteArray>

namespace sim {

/// CRC-16 of Modbus RTU over `bytes`; 0xFFFF for none.
quint16 crc16(const QByteArray &bytes);

/// `bytes` with their CRC behind them, low byte first.
QByteArray withCrc(const QByteArray &bytes);

/// Whether the last two bytes of `frame` are the CRC of all before them. False below 4 bytes.
bool hasValidCrc(const QByteArray &frame);

} // namespace sim
