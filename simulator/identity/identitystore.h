#pragma once

#include "gripperidentity.h"

namespace sim {

/// The serial number and production year in the permanent memory of a gripper. Values that a
/// master writes are staged. Reads return the stored values until store() replaces them.
class IdentityStore
{
public:
    explicit IdentityStore(const GripperIdentity &identity);

    quint16 value(int offset) const { return m_stored.at(offset); }
    /// Keeps `values` for the registers from `offset` on until store().
    void stage(int offset, const QVector<quint16> &values);
    /// Stores the staged values. A master writes the first character of a register to the low byte
    /// and reads it from the high byte, so this swaps the bytes of the characters.
    void store();
    /// Sets the value that a read of one register returns.
    void setStored(int offset, quint16 value);

private:
    QVector<quint16> m_stored;
    QVector<quint16> m_staged;
};

} // namespace sim
