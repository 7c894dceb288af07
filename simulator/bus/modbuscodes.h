#pragma once

#include <QtGlobal>

namespace sim {

/// The function codes that the firmware of a gripper supports.
constexpr quint8 readHoldingRegisters = 0x03;
constexpr quint8 writeMultipleRegisters = 0x10;
/// The bit that marks the function code of an exception answer.
constexpr quint8 exceptionFlag = 0x80;

enum class ModbusException : quint8 {
    None = 0,
    IllegalFunction = 1,
    IllegalAddress = 2,
    IllegalValue = 3,
};

/// The big-endian word at `offset` of `bytes`.
template <typename Bytes>
quint16 wordAt(const Bytes &bytes, int offset)
{
    const auto high = static_cast<quint8>(bytes.at(offset));
    const auto low = static_cast<quint8>(bytes.at(offset + 1));
    return static_cast<quint16>(high << 8 | low);
}

/// Appends `word` to `bytes`, high byte first.
template <typename Bytes>
void appendWord(Bytes *bytes, quint16 word)
{
    bytes->append(static_cast<char>(word >> 8));
    bytes->append(static_cast<char>(word & 0xFF));
}

} // namespace sim
