#pragma once

#include <QByteArray>

namespace sim {

/// The gripper as its modes see it. A mode is a program that the gripper runs.
class ModeHost
{
public:
    /// Sends `bytes` as a Modbus answer at `baudRate` after `delayMs`.
    virtual void send(const QByteArray &bytes, int baudRate, int delayMs) = 0;
    /// Sends `bytes` as the answer of a bootloader at `baudRate`, without delay.
    virtual void sendFromBootloader(const QByteArray &bytes, int baudRate) = 0;

    /// Switches the gripper off and on. It is silent for the boot time. Then it runs the firmware
    /// in its flash under the stored slave id, or its bootloader if the flash has no valid
    /// firmware.
    virtual void restart() = 0;
    /// Restarts the gripper. It is silent for the bootloader's boot time, then runs the bootloader.
    virtual void restartIntoBootloader() = 0;
    /// Switches the gripper off until restart().
    virtual void cutPower() = 0;

protected:
    ~ModeHost() = default;
};

} // namespace sim
