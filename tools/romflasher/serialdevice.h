#pragma once

#include <QString>

#include <sys/types.h>

namespace flasher {

/// Whether the device number is that of the far end of a pseudo-terminal.
bool isPseudoTerminalSlave(dev_t device);

/// The frame format, in stm32flash's words, in which a bootloader is reached on the device at
/// `path`, links followed: "8e1", or "8n1" on a pseudo-terminal, which refuses parity. Empty when
/// there is no character device; `problem` then says so.
QString serialModeOf(const QString &path, QString *problem);

} // namespace flasher
