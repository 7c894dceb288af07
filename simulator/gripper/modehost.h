#pragma once

#include <QByteArray>

namespace sim {

/// The services of a gripper that its running program (a mode) uses.
class ModeHost
{
public:
    /// Sends `bytes` as a Modbus answer at `baudRate`, `delayMs` from now.
    virtual void send(const QByteArray &bytes, int baudRate, int delayMs) = 0;
    /// Sends `bytes` as a bootloader's answer at `baudRate`, at once.
    virtual void sendFromBootloader(const QByteArray &bytes, int baudRate) = 0;

    /// Cuts the power for a moment: the gripper is silent for the boot time. Then it runs the
    /// firmware in its flash under the stored id, or its bootloader if the flash holds none.
    virtual void restart() = 0;
    /// The gripper is silent for the bootloader's boot time, then runs the bootloader.
    virtual void restartIntoBootloader() = 0;
    /// Cuts the power until restart().
    virtual void cutPower() = 0;

protected:
    ~ModeHost() = default;
};

} // namespace sim
