#pragma once

#include <QVector>

namespace sim {

/// The communication settings, which include the slave id. A write changes the working copy. The
/// store command copies the working copy to permanent memory, and a restart copies it back.
class SettingsStore
{
public:
    explicit SettingsStore(quint8 slaveId);

    /// Reads the working copy. The registers after the slave id read 0.
    quint16 value(int offset) const { return m_working.at(offset); }
    /// Returns false and changes nothing when `values` contain a slave id outside 1 to 247.
    bool write(int offset, const QVector<quint16> &values);
    /// Sets one register in both copies.
    void setStored(int offset, quint16 value);
    void reload() { m_working = m_stored; }
    /// The slave id that applies after the next restart.
    quint8 storedSlaveId() const;

private:
    QVector<quint16> m_stored;
    QVector<quint16> m_working;
};

} // namespace sim
