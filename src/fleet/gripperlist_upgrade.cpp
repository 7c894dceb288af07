// The firmware upgrade operations of GripperList.
#include "gripperlist.h"

#include <QDebug>
#include <QScopedValueRollback>

namespace {

constexpr unsigned int jumpTimeoutMs = 2000;

/// A gripper of no known family counts as one with its own bootloader.
const Bootloader &bootloaderOf(const GripperList::Gripper &gripper)
{
    const ProductFamily *const family = productFamilyOf(gripper->getFirmwareVersion());
    return family != nullptr ? *family->bootloader : ownBootloader;
}

} // namespace

bool GripperList::hasStBootloader(const Gripper &gripper) const
{
    return &bootloaderOf(gripper) == &romBootloader;
}

bool GripperList::isDeviceInBootloaderMode(const Gripper &gripper)
{
    // The link may have been closed under a request whose answer is still to come.
    m_modbus.waitUntilQuiet();
    return gripper->detectBootloader(bootloaderOf(gripper).baudRate,
                                     KvPelloGripper::bootloaderRetries);
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
    const ProductFamily *const family = productFamilyOf(gripper->getFirmwareVersion());
    if (family == nullptr)
        return false;
    ++m_scanDisturbances;
    m_modbus.disconnectFromDevice();
    const bool isStarted =
        m_upgradeService.startUpgrade(QString::fromLatin1(family->firmwareImage),
                                      family->bootloader->baudRate, m_modbus.getPortName());
    if (family == &pelloFamily)
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
