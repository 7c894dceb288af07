#include "kvpellogripper.h"

#include "productfamily.h"
#include "registermap.h"
#include "waits.h"

namespace {

constexpr int baudRateSettleMs = 200;
constexpr int identityPauseMs = 50;
constexpr int identityAttempts = 6;
constexpr int surplusAnswersPauseMs = 100;
constexpr int speedLimitPauseMs = 50;
constexpr int settingsStoredPauseMs = 2500;
constexpr int beforeRestartPauseMs = 400;
constexpr int restartPauseMs = 3000;
constexpr quint8 activationCompleted = 3;

quint8 field(quint16 word, int shift, quint16 mask)
{
    return static_cast<quint8>(word >> shift & mask);
}

quint32 doubleWord(const QVector<quint16> &words)
{
    return words[0] | static_cast<quint32>(words[1]) << 16;
}

} // namespace

KvPelloGripper::KvPelloGripper(KvModbusAbstract &modbus, quint16 slaveId, QObject *parent)
    : KvDeviceBase(modbus, slaveId, parent)
{
    m_output[ActivateOutput] = 1;
    modbus.setBaudRate(firmwareBaudRate);
    qSleepWhileProcessingEvents(baudRateSettleMs);
    if (!modbus.isConnected())
        setError(NotConnectedError);
    // Not a virtual call: a subclass is not constructed yet.
    if (error() == NoError && !KvPelloGripper::isValidDevice())
        setError(InvalideDeviceError);
    if (!identify() || !initOutput())
        setError(InitilizationError);
}

KvPelloGripper::~KvPelloGripper() = default;

/// Reads the identity. The three values share identityAttempts, and one attempt must be left over.
bool KvPelloGripper::identify()
{
    int attemptsLeft = identityAttempts;
    const auto readUntilKnown = [&](auto isKnown) {
        while (error() == NoError && --attemptsLeft >= 0 && !isKnown())
            qSleepWhileProcessingEvents(identityPauseMs);
    };
    readUntilKnown([this] { return !getFirmwareVersion().isEmpty(); });
    readUntilKnown([this] { return getProductionYear() != 0; });
    readUntilKnown([this] { return !getSerialNumber().isEmpty(); });
    if (error() != NoError || attemptsLeft < 1)
        return false;
    // The next request reads the input block, which is as long as the firmware version. A second
    // copy of the answer with the version would count as the answer to this request. The link drops
    // a copy that arrives during this pause.
    qSleepWhileProcessingEvents(surplusAnswersPauseMs);
    return true;
}

bool KvPelloGripper::isValidDevice()
{
    const QString version = getFirmwareVersion();
    return error() == NoError && startsWithProductCode(version);
}

bool KvPelloGripper::updateInput()
{
    const QVector<quint16> words =
        modbusReadRegisters(RegisterMap::inputAddress, RegisterMap::inputCount);
    // A copy of the answer with the firmware version may arrive even after the pause in identify().
    if (words.size() < RegisterMap::inputCount || isFirmwareVersion(words))
        return false;
    decodeInput(words);
    return updateCycleNumber() && updateNumberOfSecondsPumpIsOn() &&
           updateNumberOfPumpActivations();
}

void KvPelloGripper::decodeInput(const QVector<quint16> &words)
{
    using namespace RegisterMap;
    m_vacuumStatus = field(words[0], vacuumStatusShift, twoBits);
    m_activateEcho = field(words[0], activateShift, oneBit);
    m_gripperModeEcho = field(words[0], gripperModeShift, twoBits);
    m_goToEcho = field(words[0], goToShift, oneBit);
    m_status = field(words[0], statusShift, twoBits);
    m_objectFlag = field(words[0], objectFlagShift, twoBits);
    m_faultFlag = field(words[1], faultFlagShift, fourBits);
    m_positionRequestEcho = field(words[1], 0, eightBits);
    m_position = field(words[2], positionShift, eightBits);
    m_motorCurrent = field(words[2], 0, eightBits);
}

bool KvPelloGripper::initOutput()
{
    if (!updateInput())
        return false;
    m_output[ActivateOutput] = m_activateEcho;
    m_output[GoTo] = m_goToEcho;
    m_output[PositionRequest] = m_positionRequestEcho;
    return true;
}

bool KvPelloGripper::updateOutput()
{
    const QVector<quint16> block = encodeOutput(nextActivateBit());
    if (!m_isWriteUnanswered)
        m_setSinceAttempt.reset();
    m_isWriteUnanswered = !modbusWriteRegisters(RegisterMap::outputAddress, block);
    if (m_isWriteUnanswered)
        return false;
    // An acknowledgement carries no value. It may be the late answer to an earlier attempt, which
    // did not contain the fields that clients have set since that attempt.
    m_unacknowledged &= m_setSinceAttempt;
    if (m_output[ActivateRequest] != 0)
        m_unacknowledged.set(ActivateRequest);
    if (m_unacknowledged.any())
        m_newOutput = 1;
    return true;
}

/// A new activation of an active gripper needs two writes. The first write deactivates the gripper.
/// After the gripper reports that it is inactive, the second write activates it. New output stays
/// marked until both writes are done.
quint8 KvPelloGripper::nextActivateBit()
{
    if (m_output[ActivateRequest] == 0) {
        m_newOutput = 0;
    } else if (m_activateEcho != 0) {
        change(ActivateOutput, 0);
    } else {
        change(ActivateOutput, 1);
        change(ActivateRequest, 0);
    }
    return m_output[ActivateOutput];
}

QVector<quint16> KvPelloGripper::encodeOutput(quint8 activateBit) const
{
    using namespace RegisterMap;
    const int action = m_output[LedBypass] << ledBypassShift | m_output[LedRed] << ledRedShift |
                       m_output[LedBlue] << ledBlueShift | m_output[LedGreen] << ledGreenShift |
                       activateBit << activateShift | m_output[GripperMode] << gripperModeShift |
                       m_output[GoTo] << goToShift | m_output[AutoRelease] << autoReleaseShift |
                       m_output[AutoReleaseDirection] << autoReleaseDirectionShift;
    const int position =
        m_output[MaxPeakSupplyCurrent] << maxPeakSupplyCurrentShift | m_output[PositionRequest];
    const int motion = m_output[SpeedRequest] << speedShift | m_output[ForceRequest];
    return {static_cast<quint16>(action), static_cast<quint16>(position),
            static_cast<quint16>(motion)};
}

void KvPelloGripper::copyUnacknowledgedFields(const KvPelloGripper &predecessor)
{
    for (int i = 0; i < OutputFieldCount; ++i) {
        const auto field = static_cast<OutputField>(i);
        if (predecessor.m_unacknowledged.test(field))
            store(field, predecessor.m_output[field]);
    }
}

quint8 KvPelloGripper::getActivateEcho() const
{
    return m_activateEcho == 1 && m_status == activationCompleted ? 1 : 0;
}

void KvPelloGripper::setActivateRequest()
{
    store(ActivateRequest, 1);
}

void KvPelloGripper::clearActivateRequest()
{
    store(ActivateRequest, 0);
    store(ActivateOutput, 0);
}

void KvPelloGripper::store(OutputField field, quint8 value)
{
    m_output[field] = value;
    m_unacknowledged.set(field);
    m_setSinceAttempt.set(field);
    m_newOutput = 1;
}

void KvPelloGripper::change(OutputField field, quint8 value)
{
    if (m_output[field] != value || m_isBeingReplaced)
        store(field, value);
}

bool KvPelloGripper::updateCycleNumber()
{
    return updateCounter(RegisterMap::cyclesAddress, m_numberOfCycles);
}

bool KvPelloGripper::updateNumberOfSecondsPumpIsOn()
{
    return updateCounter(RegisterMap::pumpSecondsAddress, m_numberOfSecondsPumpIsOn);
}

bool KvPelloGripper::updateNumberOfPumpActivations()
{
    return updateCounter(RegisterMap::pumpActivationsAddress, m_numberOfPumpActivations);
}

/// Uses the link directly, so that a failed counter does not change error().
bool KvPelloGripper::updateCounter(quint16 address, quint32 &counter)
{
    const QVector<quint16> words =
        modbus().readRegisters(getSlaveId(), address, RegisterMap::counterCount);
    if (words.size() < RegisterMap::counterCount)
        return false;
    // The answers of the three counters have the same length. If two answers arrive together, the
    // first one may belong to another counter. The old value stays until the next read.
    if (!modbus().isAnswerAmbiguous())
        counter = doubleWord(words);
    return true;
}

quint32 KvPelloGripper::readDoubleWord(quint16 address)
{
    const QVector<quint16> words = modbusReadRegisters(address, RegisterMap::counterCount);
    return words.size() >= RegisterMap::counterCount ? doubleWord(words) : 0;
}

quint16 KvPelloGripper::readWord(quint16 address)
{
    const QVector<quint16> words = modbusReadRegisters(address, 1);
    return words.isEmpty() ? quint16{0} : words[0];
}

quint32 KvPelloGripper::getOdometer()
{
    return readDoubleWord(RegisterMap::pumpSecondsAddress);
}

quint32 KvPelloGripper::getMicroUniqueCRC()
{
    return readDoubleWord(RegisterMap::microUniqueCrcAddress);
}

quint16 KvPelloGripper::getActivationCountRange()
{
    return readWord(RegisterMap::pumpActivationsAddress);
}

quint16 KvPelloGripper::get200NSpeedLimit()
{
    return readWord(RegisterMap::speedLimitAddress);
}

bool KvPelloGripper::set200NSpeedLimit(quint16 limit)
{
    if (!modbusWriteRegisters(RegisterMap::speedLimitCommandAddress,
                              {RegisterMap::speedLimitCommand, limit}))
        return false;
    qSleepWhileProcessingEvents(speedLimitPauseMs);
    return get200NSpeedLimit() != limit;
}

bool KvPelloGripper::updateSlaveId(unsigned char newId)
{
    using namespace RegisterMap;
    const QVector<quint16> settings = modbusReadRegisters(settingsAddress, settingsCount);
    if (settings.size() < settingsCount)
        return false;
    if (showsSlaveId(settings, newId))
        return true;
    if (!writeSettings(settings, newId))
        return false;
    qSleepWhileProcessingEvents(settingsStoredPauseMs);
    if (!showsSlaveId(modbusReadRegisters(settingsAddress, settingsCount), newId))
        return false;
    qSleepWhileProcessingEvents(beforeRestartPauseMs);
    if (!resetDeviceToFirmware())
        return false;
    qSleepWhileProcessingEvents(restartPauseMs);
    setSlaveId(newId);
    return true;
}

/// A device that already uses its new id does not answer under the old one, so a time-out counts as
/// success.
bool KvPelloGripper::writeSettings(QVector<quint16> settings, quint8 newId)
{
    using namespace RegisterMap;
    quint16 &idRegister = settings[settingsSlaveIdIndex];
    idRegister = static_cast<quint16>((idRegister & ~eightBits) | newId);
    for (const quint16 word : settingsTrailer)
        settings.append(word);
    return modbusWriteRegisters(settingsAddress, settings) ||
           modbus().error() == KvModbusAbstract::TimeoutError;
}

bool KvPelloGripper::showsSlaveId(const QVector<quint16> &settings, quint8 slaveId) const
{
    using namespace RegisterMap;
    return settings.size() >= settingsCount &&
           (settings[settingsSlaveIdIndex] & eightBits) == slaveId;
}
