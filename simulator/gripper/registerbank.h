#pragma once

#include "gripperbody.h"
#include "identitystore.h"
#include "modbuscodes.h"
#include "settingsstore.h"

#include <QMap>

#include <optional>

namespace sim {

class Timeline;

/// All holding registers of one gripper: a table of blocks, each with what reading and writing
/// it does. Owns the gripper's memory and its moving part; knows nothing of frames.
class RegisterBank
{
public:
    /// `timeline` must outlive the bank. An activation takes `activationUs`.
    RegisterBank(const GripperIdentity &identity, quint8 slaveId, qint64 activationUs,
                 const Timeline &timeline);

    /// Whether every one of `count` registers from `first` on exists.
    bool exists(quint16 first, int count) const;
    /// The present values, pins included. Only to be asked for registers that exist.
    QVector<quint16> read(quint16 first, int count);
    /// Writes as a master does. The values must lie in one block that can be written.
    ModbusException write(quint16 first, const QVector<quint16> &values);

    /// Puts `value` into a register that stores, or pins one that is worked out. False when
    /// there is no such register.
    bool set(quint16 address, quint16 value);
    /// Makes reads of `address` give `value` until released. False when it does not exist.
    bool pin(quint16 address, quint16 value);
    void release(quint16 address) { m_pins.remove(address); }
    void releaseAll() { m_pins.clear(); }
    const QMap<quint16, quint16> &pins() const { return m_pins; }

    /// The reset command that was written since the last call, if any.
    std::optional<quint16> takeResetCommand();
    /// What the firmware that runs from now on says of its version.
    void setVersion(const GripperIdentity &identity) { m_version = identity.versionRegisters(); }
    /// The firmware starts again: commands are gone, settings come from permanent memory.
    void restart();

    /// The moving part, worked out up to now.
    GripperBody &body();
    quint8 storedSlaveId() const { return m_settings.storedSlaveId(); }

private:
    struct Block
    {
        quint16 first;
        int count;
        quint16 (RegisterBank::*read)(int offset) const;
        /// Null: read only.
        ModbusException (RegisterBank::*write)(int offset, const QVector<quint16> &values);
        /// Null: worked out, so that setting it means pinning it.
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
