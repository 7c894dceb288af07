#pragma once

#include <QString>

#include <sys/types.h>

namespace flasher {

/// Whether a device with this number is the slave side of a pseudo-terminal.
bool isPseudoTerminalSlave(dev_t device);

/// The frame format for a bootloader on the device at `path`, in the words of stm32flash: "8e1", or
/// "8n1" on a pseudo-terminal, which refuses parity. Follows links. Throws Failure if `path` is not
/// a character device.
QString serialModeOf(const QString &path);

} // namespace flasher
