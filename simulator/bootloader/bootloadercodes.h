#pragma once

#include <QtGlobal>

/// The bytes of the STM32 ROM bootloader's protocol on a serial line.
namespace sim::boot {

constexpr quint8 kSynchronise = 0x7F;
constexpr quint8 kAcknowledge = 0x79;
constexpr quint8 kRefuse = 0x1F;

constexpr quint8 kGet = 0x00;
constexpr quint8 kGetVersion = 0x01;
constexpr quint8 kGetId = 0x02;
constexpr quint8 kReadMemory = 0x11;
constexpr quint8 kGo = 0x21;
constexpr quint8 kWriteMemory = 0x31;
constexpr quint8 kErase = 0x43;
constexpr quint8 kExtendedErase = 0x44;

/// The product id of the microcontroller: an STM32F405 with 1 MiB of flash.
constexpr quint16 kProductId = 0x0413;

} // namespace sim::boot
