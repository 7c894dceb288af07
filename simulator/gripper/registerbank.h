#pragma once

#include "gripperbody.h"
#include "identitystore.h"
#include "modbuscodes.h"
#include "settingsstore.h"

#include <QMap>

#include <optional>

namespace sim {

class Timeline;

/// Owns all holding registers of one gripper, its permanent memory and its moving part. A table has
/// one row for each block of registers, with the functions that read and write the block.
class RegisterBank
{
public:
    /// `timeline` must outlive the bank. An activation takes `activationUs`.
    RegisterBank(const GripperIdentity &identity, quint8 slaveId, qint64 activationUs,
                 const Timeline &timeline);

    /// Whether every one of `count` registers from `first` on exists.
    bool exists(quint16 first, int count) const;
    /// Returns the current values, or the pinned ones. The registers must exist.
    QVector<quint16> read(quint16 first, int count);
    /// Writes as a master does. All registers must be in one writable block.
    ModbusException write(quint16 first, const QVector<quint16> &values);

    /// Stores `value` in a register, or pins the register if its value is computed. Returns false
    /// when there is no such register.
    bool set(quint16 address, quint16 value);
    /// Makes reads of `address` return `value` until release(). Returns false when there is no such
    /// register.
    bool pin(quint16 address, quint16 value);
    void release(quint16 address) { m_pins.remove(address); }
    void releaseAll() { m_pins.clear(); }
    const QMap<quint16, quint16> &pins() const { return m_pins; }

    /// Removes and returns the reset command, if one was written since the previous call.
    std::optional<quint16> takeResetCommand();
    /// Sets the version registers to the version of the firmware that starts now.
    void setVersion(const GripperIdentity &identity) { m_version = identity.versionRegisters(); }
    /// The gripper restarts: clears the outputs and reloads the settings from permanent memory.
    void restart();

    /// The moving part in its current state.
    GripperBody &body();
    quint8 storedSlaveId() const { return m_settings.storedSlaveId(); }

private:
    struct Block
    {
        quint16 first;
        int count;
        quint16 (RegisterBank::*read)(int offset) const;
        /// Null for a block that is read-only.
        ModbusException (RegisterBank::*write)(int offset, const QVector<quint16> &values);
        /// Null for computed registers, which set() pins.
        void (RegisterBank::*store)(int offset, quint16 value);
    };
    static const Block blocks[];
    static const Block *blockOf(quint16 address);

    quint16 readNothing(int offset) const;
    quint16 readSettings(int offset) const;
    quint16 readSpeedLimit(int offset) const;
    quint16 readVersion(int offset) const;
    quint16 readIdentity(int offset) const;
    quint16 readChecksum(int offset) const;
    quint16 readCounters(int offset) const;
    quint16 readOutputs(int offset) const;
    quint16 readInputs(int offset) const;

    ModbusException writeReset(int offset, const QVector<quint16> &values);
    ModbusException writeIdentityStore(int offset, const QVector<quint16> &values);
    ModbusException writeSettings(int offset, const QVector<quint16> &values);
    ModbusException writeSpeedLimit(int offset, const QVector<quint16> &values);
    ModbusException writeIdentity(int offset, const QVector<quint16> &values);
    ModbusException writeOutputs(int offset, const QVector<quint16> &values);

    void storeSettings(int offset, quint16 value);
    void storeSpeedLimit(int offset, quint16 value);
    void storeVersion(int offset, quint16 value);
    void storeIdentity(int offset, quint16 value);
    void storeChecksum(int offset, quint16 value);
    void storeOutputs(int offset, quint16 value);

    quint16 readStatus() const;
    void applyOutputs();

    const Timeline &m_timeline;
    IdentityStore m_identity;
    SettingsStore m_settings;
    GripperBody m_body;
    QVector<quint16> m_version;
    QVector<quint16> m_outputs;
    quint32 m_checksum;
    quint16 m_speedLimit;
    QMap<quint16, quint16> m_pins;
    std::optional<quint16> m_resetCommand;
};

} // namespace sim
