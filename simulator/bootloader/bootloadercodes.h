#pragma once

#include <QtGlobal>

/// The bytes of the serial protocol of the STM32 ROM bootloader.
namespace sim::boot {

constexpr quint8 synchronisationByte = 0x7F;
constexpr quint8 ackByte = 0x79;
constexpr quint8 nackByte = 0x1F;

constexpr quint8 getCommand = 0x00;
constexpr quint8 getVersionCommand = 0x01;
constexpr quint8 getIdCommand = 0x02;
constexpr quint8 readMemoryCommand = 0x11;
constexpr quint8 goCommand = 0x21;
constexpr quint8 writeMemoryCommand = 0x31;
constexpr quint8 eraseCommand = 0x43;
constexpr quint8 extendedEraseCommand = 0x44;

/// The product id of an STM32F405, which has 1 MiB of flash.
constexpr quint16 productId = 0x0413;

} // namespace sim::boot
