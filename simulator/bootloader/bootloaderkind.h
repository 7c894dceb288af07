#pragma once

#include <QtGlobal>

namespace sim {

struct GripperIdentity;

/// The properties of one of the two kinds of bootloader. Both kinds understand the commands of the
/// STM32 ROM bootloader.
struct BootloaderKind
{
    int baudRate;          ///< it ignores bytes at any other rate
    quint32 firmwareStart; ///< start of the firmware; lower addresses are write-protected
    quint8 version;        ///< one hexadecimal digit each: 0x31 is version 3.1
    quint8 eraseCommand;   ///< the erase command that `get` lists; it accepts both
};

/// The kind of bootloader in a gripper with this identity.
const BootloaderKind &bootloaderOf(const GripperIdentity &identity);

} // namespace sim
