#pragma once

#include <QByteArray>

namespace sim {

struct GripperIdentity;

/// One of the two bootloaders that grippers have. Both take the commands of the STM32 ROM
/// bootloader; they differ in where they listen and in what they may write.
struct BootloaderKind
{
    const char *name;      ///< one word
    int baudRate;          ///< the only rate at which it hears anything
    quint32 firmwareStart; ///< where the firmware begins; nothing below can be written or erased
    quint8 version;        ///< as two digits, 0x31 for 3.1
    quint8 eraseCommand;   ///< the one that it names among its commands; it takes both
};

/// The bootloader that a gripper of this family has.
const BootloaderKind &bootloaderOf(const GripperIdentity &identity);

} // namespace sim
