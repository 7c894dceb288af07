#include "registerbank.h"

#include "devicemap.h"
#include "timeline.h"

namespace sim {

namespace {
constexpr quint16 factorySpeedLimit = 80;
constexpr quint32 checksumFactor = 2654435761U;

quint16 halfOf(quint32 value, int offset)
{
    return static_cast<quint16>((offset % 2) == 0 ? value : value >> 16);
}

void setHalf(quint32 *value, int offset, quint16 half)
{
    const int shift = (offset % 2) == 0 ? 0 : 16;
    *value = (*value & ~(0xFFFFU << shift)) | static_cast<quint32>(half) << shift;
}

bool bitOf(quint16 value, int bit)
{
    return (value >> bit & 1) != 0;
}

quint16 field(unsigned value, int shift)
{
    return static_cast<quint16>(value << shift);
}

BodyCommand decodeOutputs(const QVector<quint16> &outputs)
{
    const quint16 flags = outputs.at(0);
    BodyCommand command;
    command.activate = bitOf(flags, map::activateBit);
    command.mode = static_cast<quint8>(flags >> map::modeShift & map::modeMask);
    command.goTo = bitOf(flags, map::goToBit);
    command.autoRelease = bitOf(flags, map::autoReleaseBit);
    command.autoReleaseCloses = bitOf(flags, map::autoReleaseDirectionBit);
    command.position = static_cast<quint8>(outputs.at(1) & map::byteMask);
    command.force = static_cast<quint8>(outputs.at(2) & map::byteMask);
    command.speed = static_cast<quint8>(outputs.at(2) >> map::highByteShift);
    return command;
}
} // namespace

using Bank = RegisterBank;

const Bank::Block Bank::blocks[] = {
    {map::resetAddress, 1, &Bank::readNothing, &Bank::writeReset, nullptr},
    {map::identityStoreAddress, 1, &Bank::readNothing, &Bank::writeIdentityStore, nullptr},
    {map::settingsAddress, map::settingsCount, &Bank::readSettings, &Bank::writeSettings,
     &Bank::storeSettings},
    {map::speedLimitAddress, 2, &Bank::readSpeedLimit, &Bank::writeSpeedLimit,
     &Bank::storeSpeedLimit},
    {map::versionAddress, map::versionCount, &Bank::readVersion, nullptr, &Bank::storeVersion},
    {map::identityAddress, map::identityCount, &Bank::readIdentity, &Bank::writeIdentity,
     &Bank::storeIdentity},
    {map::checksumAddress, 2, &Bank::readChecksum, nullptr, &Bank::storeChecksum},
    {map::countersAddress, map::counterCount, &Bank::readCounters, nullptr, nullptr},
    {map::outputsAddress, map::outputCount, &Bank::readOutputs, &Bank::writeOutputs,
     &Bank::storeOutputs},
    {map::inputsAddress, map::inputCount, &Bank::readInputs, nullptr, nullptr},
};

RegisterBank::RegisterBank(const GripperIdentity &identity, quint8 slaveId, qint64 activationUs,
                           const Timeline &timeline)
    : m_timeline(timeline)
    , m_identity(identity)
    , m_settings(slaveId)
    , m_body(identity.isVacuum(), activationUs)
    , m_version(identity.versionRegisters())
    , m_outputs(map::outputCount)
    , m_checksum(identity.serialNumber * checksumFactor)
    , m_speedLimit(factorySpeedLimit)
{
}

const Bank::Block *RegisterBank::blockOf(quint16 address)
{
    for (const Block &block : blocks) {
        if (address >= block.first && address < block.first + block.count)
            return &block;
    }
    return nullptr;
}

bool RegisterBank::exists(quint16 first, int count) const
{
    for (int address = first; address < first + count; ++address) {
        if (address > 0xFFFF || blockOf(static_cast<quint16>(address)) == nullptr)
            return false;
    }
    return true;
}

QVector<quint16> RegisterBank::read(quint16 first, int count)
{
    m_body.advance(m_timeline.nowUs());
    QVector<quint16> values;
    for (int i = 0; i < count; ++i) {
        const auto address = static_cast<quint16>(first + i);
        const Block *block = blockOf(address);
        const quint16 own = (this->*block->read)(address - block->first);
        values.append(m_pins.value(address, own));
    }
    return values;
}

ModbusException RegisterBank::write(quint16 first, const QVector<quint16> &values)
{
    const Block *block = blockOf(first);
    if (block == nullptr || block->write == nullptr)
        return ModbusException::IllegalAddress;
    const int offset = first - block->first;
    if (offset + values.size() > block->count)
        return ModbusException::IllegalAddress;
    return (this->*block->write)(offset, values);
}

bool RegisterBank::set(quint16 address, quint16 value)
{
    const Block *block = blockOf(address);
    if (block == nullptr || block->store == nullptr)
        return pin(address, value);
    (this->*block->store)(address - block->first, value);
    return true;
}

bool RegisterBank::pin(quint16 address, quint16 value)
{
    if (!exists(address, 1))
        return false;
    m_pins.insert(address, value);
    return true;
}

std::optional<quint16> RegisterBank::takeResetCommand()
{
    const std::optional<quint16> command = m_resetCommand;
    m_resetCommand.reset();
    return command;
}

void RegisterBank::restart()
{
    m_settings.reload();
    m_outputs.fill(0);
    m_body.restart(m_timeline.nowUs());
}

GripperBody &RegisterBank::body()
{
    m_body.advance(m_timeline.nowUs());
    return m_body;
}

quint16 RegisterBank::readNothing(int /*offset*/) const
{
    return 0;
}

quint16 RegisterBank::readSettings(int offset) const
{
    return m_settings.value(offset);
}

quint16 RegisterBank::readSpeedLimit(int offset) const
{
    return offset == 0 ? 0 : m_speedLimit;
}

quint16 RegisterBank::readVersion(int offset) const
{
    return m_version.at(offset);
}

quint16 RegisterBank::readIdentity(int offset) const
{
    return m_identity.value(offset);
}

quint16 RegisterBank::readChecksum(int offset) const
{
    return halfOf(m_checksum, offset);
}

quint16 RegisterBank::readCounters(int offset) const
{
    const quint32 counters[] = {m_body.cycles(), m_body.usage(), m_body.starts()};
    return halfOf(counters[offset / 2], offset);
}

quint16 RegisterBank::readOutputs(int offset) const
{
    return m_outputs.at(offset);
}

quint16 RegisterBank::readInputs(int offset) const
{
    const BodyCommand &command = m_body.command();
    const quint16 words[] = {
        readStatus(),
        static_cast<quint16>(command.position | field(m_body.faultCode(), map::faultShift)),
        static_cast<quint16>(m_body.motorCurrent() | field(m_body.position(), map::highByteShift)),
    };
    return words[offset];
}

quint16 RegisterBank::readStatus() const
{
    const BodyCommand &command = m_body.command();
    const auto vacuum = static_cast<unsigned>(m_body.vacuumStatus());
    const auto status = static_cast<unsigned>(m_body.status());
    const auto object = static_cast<unsigned>(m_body.objectFlag());
    return static_cast<quint16>(vacuum | field(command.activate ? 1 : 0, map::activateBit) |
                                field(command.mode, map::modeShift) |
                                field(command.goTo ? 1 : 0, map::goToBit) |
                                field(status, map::statusShift) | field(object, map::objectShift));
}

ModbusException RegisterBank::writeReset(int /*offset*/, const QVector<quint16> &values)
{
    const quint16 command = values.first();
    const bool isKnown = command == map::restartCommand || command == map::romBootloaderCommand ||
                         command == map::ownBootloaderCommand;
    if (!isKnown)
        return ModbusException::IllegalValue;
    m_resetCommand = command;
    return ModbusException::None;
}

ModbusException RegisterBank::writeIdentityStore(int /*offset*/, const QVector<quint16> &values)
{
    if (values.first() != map::storeIdentityCommand)
        return ModbusException::IllegalValue;
    m_identity.store();
    return ModbusException::None;
}

ModbusException RegisterBank::writeSettings(int offset, const QVector<quint16> &values)
{
    return m_settings.write(offset, values) ? ModbusException::None : ModbusException::IllegalValue;
}

ModbusException RegisterBank::writeSpeedLimit(int offset, const QVector<quint16> &values)
{
    // The limit is valid only together with its command.
    if (offset != 0 || values.size() != 2 || values.first() != map::speedLimitCommand)
        return ModbusException::IllegalValue;
    m_speedLimit = values.last();
    return ModbusException::None;
}

ModbusException RegisterBank::writeIdentity(int offset, const QVector<quint16> &values)
{
    m_identity.stage(offset, values);
    return ModbusException::None;
}

ModbusException RegisterBank::writeOutputs(int offset, const QVector<quint16> &values)
{
    for (int i = 0; i < values.size(); ++i)
        m_outputs[offset + i] = values.at(i);
    applyOutputs();
    return ModbusException::None;
}

void RegisterBank::applyOutputs()
{
    m_body.setCommand(decodeOutputs(m_outputs), m_timeline.nowUs());
}

void RegisterBank::storeSettings(int offset, quint16 value)
{
    m_settings.setStored(offset, value);
}

void RegisterBank::storeSpeedLimit(int offset, quint16 value)
{
    if (offset == 1)
        m_speedLimit = value;
}

void RegisterBank::storeVersion(int offset, quint16 value)
{
    m_version[offset] = value;
}

void RegisterBank::storeIdentity(int offset, quint16 value)
{
    m_identity.setStored(offset, value);
}

void RegisterBank::storeChecksum(int offset, quint16 value)
{
    setHalf(&m_checksum, offset, value);
}

void RegisterBank::storeOutputs(int offset, quint16 value)
{
    m_outputs[offset] = value;
    applyOutputs();
}

} // namespace sim
