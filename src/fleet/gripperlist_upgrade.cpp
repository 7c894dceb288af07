// The firmware upgrade operations of GripperList.
#include "gripperlist.h"

#include <QDebug>
#include <QScopedValueRollback>

namespace {

constexpr unsigned int jumpTimeoutMs = 2000;

/// A gripper of an unknown family counts as a gripper with ownBootloader.
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
    // A request may still wait for its answer although the link is closed.
    m_modbus.waitUntilQuiet();
    return gripper->detectBootloader(bootloaderOf(gripper).baudRate,
                                     KvPelloGripper::bootloaderRetries);
}

bool GripperList::jumpToBootloader(const Gripper &gripper)
{
    if (m_upgradeService.isUpgrading())
        return false;
    const QScopedValueRollback<bool> running(m_jumpRunning, true);
    // If this runs inside the wait of another operation, that operation needs the flag afterwards.
    const QScopedValueRollback<bool> busy(m_busy, true);
    // If the jump runs inside the waits of a scan, the scan misses the other grippers.
    ++m_scanDisturbances;
    if (isDeviceInBootloaderMode(gripper))
        return true;
    bool isInBootloader = hasStBootloader(gripper) ? gripper->jumpToStBootloader(jumpTimeoutMs)
                                                   : gripper->jumpToTavrinBootloader(jumpTimeoutMs);
    // The link is still open if the reset got no valid answer. The gripper may have obeyed anyway.
    if (!isInBootloader && m_modbus.isConnected())
        isInBootloader = isInBootloaderAfterLostAnswer(gripper);
    setMuted(true);
    return isInBootloader;
}

/// If no bootloader answers, opens the link again at its old rate. When a client unmutes polling,
/// the loop continues on this link.
bool GripperList::isInBootloaderAfterLostAnswer(const Gripper &gripper)
{
    m_modbus.disconnectFromDevice();
    if (isDeviceInBootloaderMode(gripper))
        return true;
    m_modbus.connectToDevice();
    return false;
}

bool GripperList::upgradeFirmware(const Gripper &gripper)
{
    // A jump that resumes later would open the port again while the program flashes.
    if (m_jumpRunning || !jumpToBootloader(gripper))
        return false;
    const ProductFamily *const family = productFamilyOf(gripper->getFirmwareVersion());
    if (family == nullptr)
        return false;
    // The scan after the upgrade creates new objects.
    expectReplacements();
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
