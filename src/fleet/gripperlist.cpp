#include "gripperlist.h"

#include "kvpellogripperfinder.h"
#include "portusage.h"
#include "quitsignals.h"

#include <QDebug>
#include <QScopedValueRollback>
#include <QSerialPortInfo>

namespace {

// Keep this longer than a tick that reads a gripper, which takes 42 ms. A tick that is due during
// another tick is lost: an interval of 40 ms would give a period of 80 ms.
constexpr int throttledIntervalMs = 50;
constexpr int fastIntervalMs = 5;
constexpr int scanBackOffMs = 1000;
// A gripper that returns later must not carry out an old command.
constexpr int predecessorLifetimeMs = 5000;

bool isSameDevice(const GripperList::Gripper &first, const GripperList::Gripper &second)
{
    return first->getSerialNumber() == second->getSerialNumber();
}

} // namespace

GripperList::GripperList(const ModbusConstraintsFactory &constraintsFactory, QObject *parent)
    : QObject(parent)
    , m_modbus(nullptr)
    , m_stateLoopTimer(new QTimer(this))
    , m_scanBackOffTimer(new QTimer(this))
    , m_constraintsFactory(constraintsFactory)
    , m_tickIntervalMs(throttledIntervalMs)
{
    m_scanBackOffTimer->setSingleShot(true);
    // A coarse timer may fire early.
    m_scanBackOffTimer->setTimerType(Qt::PreciseTimer);
    connect(m_stateLoopTimer, &QTimer::timeout, this, &GripperList::onTimerStateLoopTimeout);
    m_stateLoopTimer->setTimerType(Qt::PreciseTimer);
    m_stateLoopTimer->start(m_tickIntervalMs);
    connect(&m_upgradeService, &FirmwareUpgradeService::upgradeFinished, this,
            &GripperList::unmuteOnUpgradeFinished);
}

GripperList::~GripperList() = default;

GripperList::Gripper GripperList::getGripperFromSlaveId(unsigned char slaveId) const
{
    return m_grippers.value(slaveId);
}

GripperList::Gripper GripperList::latest(const Gripper &gripper) const
{
    return m_grippers.value(gripper->getSlaveId(), gripper);
}

QVector<quint8> GripperList::getDiscoveredSlaveIds() const
{
    return m_grippers.keys().toVector();
}

QByteArray GripperList::getPrintableState() const
{
    switch (m_linkStatus) {
    case LinkStatus::Scanning:
        return QByteArrayLiteral("SCANNING");
    case LinkStatus::Running:
        return QByteArrayLiteral("RUNNING");
    case LinkStatus::ErrorScanning:
        return QByteArrayLiteral("ERR_SCANNING (EIO)");
    case LinkStatus::Timeout:
        return QByteArrayLiteral("ERR_TIMEOUT");
    }
    return QByteArrayLiteral("UNKNOWN_STATE");
}

QString GripperList::getModbusName() const
{
    return m_modbus.getPortName();
}

void GripperList::setMuted(bool muted)
{
    m_muted = muted;
}

void GripperList::setThrottled(bool throttled)
{
    // The next tick sets the timer. A change from here would restart the period, so a client that
    // sends THROTTLE often enough would stop polling.
    m_tickIntervalMs = throttled ? throttledIntervalMs : fastIntervalMs;
}

void GripperList::requestScan()
{
    m_scanRequested = true;
}

void GripperList::requestScanBlock()
{
    m_loopStep = LoopStep::Discover;
    // If this runs inside the wait of another operation, that operation needs the flag afterwards.
    const QScopedValueRollback<bool> busy(m_busy, true);
    m_linkStatus = LinkStatus::Scanning;
    discoverState();
}

void GripperList::onTimerStateLoopTimeout()
{
    if (m_stateLoopTimer->interval() != m_tickIntervalMs)
        m_stateLoopTimer->setInterval(m_tickIntervalMs);
    if (m_tickRunning || m_busy || m_muted || m_upgradeService.isUpgrading())
        return;
    const QScopedValueRollback<bool> running(m_tickRunning, true);
    jumpPendingToBootloader();
    runStep();
}

void GripperList::runStep()
{
    switch (m_loopStep) {
    case LoopStep::Discover:
        discoverTick();
        return;
    case LoopStep::SelectNext:
        selectNextSlaveState();
        return;
    case LoopStep::ReadInput:
        updateInputState();
        return;
    case LoopStep::WriteOutput:
        updateOutputState();
        return;
    }
}

void GripperList::discoverTick()
{
    if (m_scanBackOffTimer->isActive())
        return;
    discoverState();
    if (m_loopStep == LoopStep::Discover)
        m_scanBackOffTimer->start(scanBackOffMs);
}

void GripperList::selectNextSlaveState()
{
    if (m_scanRequested) {
        m_scanRequested = false;
        restartDiscovery(LinkStatus::Scanning);
        return;
    }
    if (m_grippers.isEmpty()) {
        restartDiscovery(LinkStatus::Scanning);
        return;
    }
    auto next = m_currentSlaveId ? m_grippers.upperBound(*m_currentSlaveId) : m_grippers.begin();
    if (next == m_grippers.end())
        next = m_grippers.begin();
    m_currentSlaveId = next.key();
    updateInputState();
}

void GripperList::updateInputState()
{
    const Gripper gripper = currentGripper();
    if (!gripper) {
        restartDiscovery(LinkStatus::ErrorScanning);
        return;
    }
    if (!succeedsWithinRetries([&] { return gripper->updateInput(); },
                               "gripper->updateInput() fail counter: ")) {
        onAccessFailed();
        return;
    }
    m_loopStep = LoopStep::WriteOutput;
    m_linkStatus = LinkStatus::Running;
}

void GripperList::updateOutputState()
{
    const Gripper gripper = currentGripper();
    if (!gripper) {
        restartDiscovery(LinkStatus::ErrorScanning);
        return;
    }
    if (!gripper->isNewOutput()) {
        selectNextSlaveState();
        return;
    }
    if (!succeedsWithinRetries([&] { return gripper->updateOutput(); },
                               "gripper->updateOutput() fail counter: ")) {
        onAccessFailed();
        return;
    }
    m_loopStep = LoopStep::SelectNext;
    m_linkStatus = LinkStatus::Running;
}

/// Repeats a failed access until it succeeds or has failed __maxGripperCommunicationRetries times.
/// After the last of these failures one more attempt follows, but its result does not count.
bool GripperList::succeedsWithinRetries(const std::function<bool()> &access,
                                        const char *failureText)
{
    int failCounter = 0;
    while (!access()) {
        if (failCounter == __maxGripperCommunicationRetries || quitRequested())
            return false;
        ++failCounter;
        qInfo() << failureText << failCounter;
    }
    return failCounter < __maxGripperCommunicationRetries;
}

void GripperList::onAccessFailed()
{
    if (!m_modbus.isConnected()) {
        restartDiscovery(LinkStatus::ErrorScanning);
        return;
    }
    restartDiscovery(LinkStatus::Timeout);
    m_modbus.disconnectFromDevice();
}

void GripperList::restartDiscovery(LinkStatus status)
{
    m_loopStep = LoopStep::Discover;
    m_linkStatus = status;
}

GripperList::Gripper GripperList::currentGripper() const
{
    return m_currentSlaveId ? m_grippers.value(*m_currentSlaveId) : Gripper();
}

void GripperList::discoverState()
{
    // The search for ports blocks the thread, and openLink() sets the rate. Both could disturb an
    // answer.
    m_modbus.waitUntilQuiet();
    if (quitRequested() || m_upgradeService.isUpgrading())
        return;
    if (m_modbus.isConnected()) {
        if (!scanUndisturbed(m_modbus.getPortName()))
            return;
        if (m_grippers.isEmpty())
            m_modbus.disconnectFromDevice();
        else
            startPolling();
        return;
    }
    for (auto gripper = m_grippers.cbegin(); gripper != m_grippers.cend(); ++gripper)
        keepPredecessor(gripper.key(), gripper.value());
    m_grippers.clear();
    m_currentSlaveId.reset();
    const QStringList portNames = getAvailableSerialPorts();
    for (const QString &portName : portNames) {
        if (quitRequested())
            return;
        const bool isUndisturbed = scanUndisturbed(portName);
        // The scan inside this wait scanned only this port. If it found no gripper, the search
        // continues.
        if (!isUndisturbed && !m_grippers.isEmpty())
            return;
        if (!m_grippers.isEmpty()) {
            openLink(portName);
            startPolling();
            return;
        }
        m_modbus.disconnectFromDevice();
    }
}

/// SelectNext looks for the gripper after the current one, so the loop reads the second gripper
/// first.
void GripperList::startPolling()
{
    m_currentSlaveId = m_grippers.firstKey();
    m_loopStep = LoopStep::SelectNext;
    m_linkStatus = LinkStatus::Running;
}

void GripperList::openLink(const QString &portName)
{
    m_modbus.setConstraints(m_constraintsFactory.getModbusConstraints(portName));
    m_modbus.setPortName(portName);
    m_modbus.setBaudRate(KvPelloGripper::firmwareBaudRate);
    m_modbus.connectToDevice();
}

void GripperList::scan(const QString &portName)
{
    scanUndisturbed(portName);
}

/// Returns false if the caller must ignore the result of this scan: the daemon quits or flashes, or
/// another scan or a bootloader jump ran inside the waits of this scan. The other scan has already
/// updated the list, and clients may have changed its grippers.
bool GripperList::scanUndisturbed(const QString &portName)
{
    if (m_upgradeService.isUpgrading())
        return false;
    openLink(portName);
    if (!m_modbus.isConnected())
        return true;
    expectReplacements();
    const unsigned int disturbances = m_scanDisturbances;
    const QVector<Gripper> found = KvPelloGripperFinder::instance()->scanPort(m_modbus);
    if (quitRequested())
        return false;
    const bool isUndisturbed = m_scanDisturbances == disturbances;
    ++m_scanDisturbances;
    if (isUndisturbed) {
        for (quint8 slaveId = __min_slave_id; slaveId <= __max_slave_id; ++slaveId)
            updateEntry(slaveId, found);
    }
    qInfo() << "Connected serial port :" << portName;
    qInfo() << m_grippers.keys();
    return isUndisturbed;
}

void GripperList::updateEntry(quint8 slaveId, const QVector<Gripper> &found)
{
    Gripper match;
    for (const Gripper &gripper : found) {
        if (gripper->getSlaveId() == slaveId)
            match = gripper;
    }
    Gripper predecessor = m_grippers.value(slaveId);
    if (!match) {
        if (predecessor)
            keepPredecessor(slaveId, predecessor);
        removeGripper(slaveId);
        return;
    }
    const Predecessor removed = m_predecessors.take(slaveId);
    if (!predecessor && !removed.lifetime.hasExpired())
        predecessor = removed.gripper;
    if (predecessor && isSameDevice(predecessor, match))
        match->copyUnacknowledgedFields(*predecessor);
    m_grippers.insert(slaveId, match);
}

void GripperList::expectReplacements()
{
    for (const Gripper &gripper : qAsConst(m_grippers))
        gripper->expectReplacement();
}

void GripperList::keepPredecessor(quint8 slaveId, const Gripper &gripper)
{
    gripper->expectReplacement();
    m_predecessors.insert(slaveId, {gripper, QDeadlineTimer(predecessorLifetimeMs)});
}

/// If this is the current gripper, the first gripper becomes the current one.
void GripperList::removeGripper(quint8 slaveId)
{
    m_grippers.remove(slaveId);
    if (m_currentSlaveId != slaveId)
        return;
    m_currentSlaveId.reset();
    if (!m_grippers.isEmpty())
        m_currentSlaveId = m_grippers.firstKey();
}

QStringList GripperList::getAvailableSerialPorts() const
{
    const auto present = QSerialPortInfo::availablePorts();
    QString presentNames;
    for (const QSerialPortInfo &port : present)
        presentNames += port.portName() + QLatin1String(", ");
    qInfo() << "availablePorts: " << presentNames;

    const auto report = [](const QString &command, int exitCode) {
        qInfo() << "command : " << command;
        qInfo() << "error : " << exitCode << "\n";
    };
    // The tool-flange port comes first, even if the enumeration does not list it.
    QStringList portNames{QStringLiteral("ttyTool")};
    for (const QSerialPortInfo &port : present) {
        if (isUsbSerialPortName(port.portName()) && isPortFree(port.portName(), report))
            portNames.append(port.portName());
    }
    return portNames;
}

bool GripperList::isPello(const Gripper &gripper) const
{
    return productFamilyOf(gripper->getFirmwareVersion()) == &pelloFamily;
}

bool GripperList::isVarno(const Gripper &gripper) const
{
    return productFamilyOf(gripper->getFirmwareVersion()) == &varnoFamily;
}

bool GripperList::isZentra(const Gripper &gripper) const
{
    return productFamilyOf(gripper->getFirmwareVersion()) == &zentraFamily;
}

bool GripperList::isSorbix(const Gripper &gripper) const
{
    return productFamilyOf(gripper->getFirmwareVersion()) == &sorbixFamily;
}

bool GripperList::updateGripperSlaveId(unsigned char oldId, unsigned char newId)
{
    // If this runs inside the wait of another operation, that operation needs the flag afterwards.
    const QScopedValueRollback<bool> busy(m_busy, true);
    const Gripper gripper = getGripperFromSlaveId(oldId);
    if (!gripper)
        return false;
    if (!gripper->updateSlaveId(newId)) {
        qInfo() << "fail to update slave id from " << oldId << " to " << newId;
        return false;
    }
    // A scan inside the move may have found the gripper at either id, and clients may have set
    // fields of the new object.
    for (const quint8 slaveId : {oldId, newId}) {
        const Gripper scanned = m_grippers.value(slaveId);
        if (scanned && scanned != gripper && isSameDevice(scanned, gripper))
            gripper->copyUnacknowledgedFields(*scanned);
    }
    // The order matters if both ids are the same: the gripper then leaves the list until the next
    // discovery.
    m_grippers.insert(newId, gripper);
    removeGripper(oldId);
    if (oldId == newId)
        keepPredecessor(newId, gripper);
    qInfo() << "update slave id from " << oldId << " to " << newId;
    return true;
}
