#pragma once

#include "registermap.h"

#include <QSerialPort>

/// A bootloader that grippers have.
struct Bootloader
{
    quint16 restartCommand;         ///< Written to the reset register, it starts the bootloader.
    QSerialPort::BaudRate baudRate; ///< The bootloader answers and is flashed at this rate.
};

/// The bootloader in the microcontroller's ROM.
inline constexpr Bootloader romBootloader{RegisterMap::restartIntoRomBootloader,
                                          QSerialPort::Baud19200};
/// The bootloader that comes with the gripper's firmware.
inline constexpr Bootloader ownBootloader{RegisterMap::restartIntoOwnBootloader,
                                          QSerialPort::Baud115200};
