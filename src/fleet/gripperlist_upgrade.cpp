// The firmware upgrade operations of GripperList.
#include "gripperlist.h"

#include <QDebug>
#include <QScopedValueRollback>

#include <algorithm>
#include <array>

namespace {

constexpr unsigned int jumpTimeoutMs = 2000;
constexpr unsigned int detectionRetries = 50;

struct Firmware
{
    bool (GripperList::*isFamily)(const GripperList::Gripper &gripper) const;
    const char *file;
    QSerialPort::BaudRate baudRate;
};

constexpr std::array<Firmware, 4> firmwares{{
    {&GripperList::isVarno, GripperList::__firmwareGripperB, QSerialPort::Baud19200},
    {&GripperList::isPello, GripperList::__firmwareGripperA, QSerialPort::Baud19200},
    {&GripperList::isZentra, GripperList::__firmwareGripperE, QSerialPort::Baud115200},
    {&GripperList::isSorbix, GripperList::__firmwareGripperF, QSerialPort::Baud115200},
}};

} // namespace

bool GripperList::hasStBootloader(const Gripper &gripper) const
{
    return isVarno(gripper) || isPello(gripper);
}

bool GripperList::isDeviceInBootloaderMode(const Gripper &gripper)
{
    // The link may have been closed under a request whose answer is still to come.
    m_modbus.waitUntilQuiet();
    return gripper->detectBootloader(hasStBootloader(gripper) ? QSerialPort::Baud19200
                                                              : QSerialPort::Baud115200,
                                     detectionRetries);
}

bool GripperList::jumpToBootloader(const Gripper &gripper)
{
    if (m_upgradeService.isUpgrading())
        return false;
    const QScopedValueRollback<bool> running(m_jumpRunning, true);
    // Inside the wait of another operation the flag stays set for that one.
    const QScopedValueRollback<bool> busy(m_busy, true);
    if (isDeviceInBootloaderMode(gripper))
        return true;
    bool isInBootloader = hasStBootloader(gripper) ? gripper->jumpToStBootloader(jumpTimeoutMs)
                                                   : gripper->jumpToTavrinBootloader(jumpTimeoutMs);
    // The link is open only when no answer to the reset came, or a damaged one. The gripper may
    // have obeyed all the same.
    if (!isInBootloader && m_modbus.isConnected())
        isInBootloader = isInBootloaderWithoutAnswer(gripper);
    setMuted(true);
    return isInBootloader;
}

/// A link that leads to no bootloader is open again afterwards, at its own rate: once unmuted,
/// polling continues on it.
bool GripperList::isInBootloaderWithoutAnswer(const Gripper &gripper)
{
    m_modbus.disconnectFromDevice();
    if (isDeviceInBootloaderMode(gripper))
        return true;
    m_modbus.connectToDevice();
    return false;
}

bool GripperList::upgradeFirmware(const Gripper &gripper)
{
    // A jump that waits for its answer opens the port again when it resumes.
    if (m_jumpRunning || !jumpToBootloader(gripper))
        return false;
    const auto *firmware =
        std::find_if(firmwares.begin(), firmwares.end(),
                     [&](const Firmware &row) { return (this->*row.isFamily)(gripper); });
    if (firmware == firmwares.end())
        return false;
    ++m_scanDisturbances;
    m_modbus.disconnectFromDevice();
    while (isPello(gripper) && m_modbus.isConnected())
        m_modbus.disconnectFromDevice();
    const bool isStarted = m_upgradeService.startUpgrade(
        QString::fromLatin1(firmware->file), firmware->baudRate, m_modbus.getPortName());
    if (isPello(gripper))
        qInfo() << "upgrade started : " << (isStarted ? "true" : "false");
    return true;
}

void GripperList::resetToBootloader(const Gripper &gripper)
{
    m_pendingBootloader.append(gripper);
}

void GripperList::jumpPendingToBootloader()
{
    const QList<Gripper> pending = m_pendingBootloader;
    for (const Gripper &gripper : pending) {
        jumpToBootloader(gripper);
        m_loopStep = LoopStep::Discover;
    }
    m_pendingBootloader.clear();
}

void GripperList::unmuteOnUpgradeFinished()
{
    qInfo() << "unmuteOnUpgradeFinished";
    setMuted(false);
    if (!m_scanRequested)
        return;
    m_scanRequested = false;
    restartDiscovery(LinkStatus::Scanning);
}

int GripperList::getUpgradeStatus() const
{
    return m_upgradeService.isUpgrading() ? 1 : 0;
}
