#include "identitystore.h"

#include "devicemap.h"

namespace sim {

namespace {
quint16 swapped(quint16 value)
{
    return static_cast<quint16>(value << 8 | value >> 8);
}

/// Converts between the written and the read byte order, which differ for characters only.
quint16 reordered(int offset, quint16 value)
{
    return offset < map::serialTextCount ? swapped(value) : value;
}
} // namespace

IdentityStore::IdentityStore(const GripperIdentity &identity)
{
    const QVector<quint16> registers = identity.identityRegisters();
    m_stored.resize(map::identityCount);
    m_staged.resize(map::identityCount);
    for (int i = 0; i < registers.size(); ++i)
        setStored(i, registers.at(i));
}

void IdentityStore::stage(int offset, const QVector<quint16> &values)
{
    for (int i = 0; i < values.size(); ++i)
        m_staged[offset + i] = values.at(i);
}

void IdentityStore::store()
{
    for (int i = 0; i < m_staged.size(); ++i)
        m_stored[i] = reordered(i, m_staged.at(i));
}

void IdentityStore::setStored(int offset, quint16 value)
{
    m_stored[offset] = value;
    m_staged[offset] = reordered(offset, value);
}

} // namespace sim
