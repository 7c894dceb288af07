#pragma once

#include "registermap.h"

#include <QSerialPort>

/// A kind of bootloader. Every gripper has one of the two kinds below.
struct Bootloader
{
    quint16 restartCommand;         ///< A write of this word to the reset register starts it.
    QSerialPort::BaudRate baudRate; ///< The rate of the search and of the flashing program.
};

/// The bootloader in the microcontroller's ROM.
inline constexpr Bootloader romBootloader{RegisterMap::restartIntoRomBootloader,
                                          QSerialPort::Baud19200};
/// The bootloader that comes with the gripper's firmware.
inline constexpr Bootloader ownBootloader{RegisterMap::restartIntoOwnBootloader,
                                          QSerialPort::Baud115200};
