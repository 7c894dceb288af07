#pragma once

#include <QVector>

namespace sim {

/// The communication settings, the slave id among them. Writes change the working copy; the
/// store word of the trailer copies it to permanent memory, and a restart copies it back.
class SettingsStore
{
public:
    explicit SettingsStore(quint8 slaveId);

    /// The working copy; the trailer reads as 0.
    quint16 value(int offset) const { return m_working.at(offset); }
    /// False, and nothing changed, when `values` would give a slave id outside 1 to 247.
    bool write(int offset, const QVector<quint16> &values);
    /// Sets one register in both copies.
    void setStored(int offset, quint16 value);
    void reload() { m_working = m_stored; }
    /// The slave id that the next restart brings.
    quint8 storedSlaveId() const;

private:
    QVector<quint16> m_stored;
    QVector<quint16> m_working;
};

} // namespace sim
