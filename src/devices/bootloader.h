#pragma once

#include "registermap.h"

#include <QSerialPort>

/// A kind of bootloader. Every gripper has one of the two kinds below.
struct Bootloader
{
    quint16 restartCommand;         ///< Written to the reset register, it starts the bootloader.
    QSerialPort::BaudRate baudRate; ///< The rate of the search and of the flashing program.
};

/// The bootloader in the microcontroller's ROM.
inline constexpr Bootloader romBootloader{RegisterMap::restartIntoRomBootloader,
                                          QSerialPort::Baud19200};
/// The bootloader that comes with the gripper's firmware.
inline constexpr Bootloader ownBootloader{RegisterMap::restartIntoOwnBootloader,
                                          QSerialPort::Baud115200};
