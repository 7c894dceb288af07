#pragma once

#include "gripperidentity.h"

namespace sim {

/// Serial number and production year in the gripper's permanent memory. What a master writes
/// waits until it is told to be stored, and is not read back before.
class IdentityStore
{
public:
    explicit IdentityStore(const GripperIdentity &identity);

    quint16 value(int offset) const { return m_stored.at(offset); }
    /// Keeps `values` from `offset` on until store().
    void stage(int offset, const QVector<quint16> &values);
    /// Stores what is staged. Masters send the first character of a register in its low byte and
    /// read it from the high byte, so the bytes of the characters change places here.
    void store();
    /// Sets one register as it reads, without staging.
    void setStored(int offset, quint16 value);

private:
    QVector<quint16> m_stored;
    QVector<quint16> m_staged;
};

} // namespace sim
