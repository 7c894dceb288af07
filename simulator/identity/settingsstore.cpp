#include "settingsstore.h"

#include "devicemap.h"

namespace sim {

namespace {
// The values up to the register of the slave id. Masters read them and write them back unchanged.
constexpr quint16 factorySettings[] = {0x0003, 0x0008, 0x0001, 0x0000, 0x0100};

quint8 slaveIdIn(const QVector<quint16> &settings)
{
    return static_cast<quint8>(settings.at(map::slaveIdOffset) & map::byteMask);
}

void clearTrailer(QVector<quint16> *settings)
{
    for (int i = map::slaveIdOffset + 1; i < map::settingsCount; ++i)
        (*settings)[i] = 0;
}
} // namespace

SettingsStore::SettingsStore(quint8 slaveId)
    : m_stored(map::settingsCount)
{
    for (int i = 0; i <= map::slaveIdOffset; ++i)
        m_stored[i] = factorySettings[i];
    m_stored[map::slaveIdOffset] |= slaveId;
    m_working = m_stored;
}

bool SettingsStore::write(int offset, const QVector<quint16> &values)
{
    QVector<quint16> changed = m_working;
    for (int i = 0; i < values.size(); ++i)
        changed[offset + i] = values.at(i);
    const quint8 slaveId = slaveIdIn(changed);
    if (slaveId < map::minSlaveId || slaveId > map::maxSlaveId)
        return false;
    const bool isStored = changed.at(map::storeCommandOffset) == map::storeSettingsCommand;
    clearTrailer(&changed);
    m_working = changed;
    if (isStored)
        m_stored = m_working;
    return true;
}

void SettingsStore::setStored(int offset, quint16 value)
{
    m_working[offset] = value;
    m_stored[offset] = value;
}

quint8 SettingsStore::storedSlaveId() const
{
    return slaveIdIn(m_stored);
}

} // namespace sim
