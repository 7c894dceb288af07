#pragma once

#include "kvmodbusabstract.h"

#include <QObject>
#include <QSerialPort>
#include <QString>
#include <QTimer>
#include <QVector>

/// One Modbus slave on a master that it does not own. Offers register access with an error state,
/// the bootloader operations, and the identity data, which it reads once.
/// Every register access pumps events while it waits. error() is valid only directly after a call.
class KvDeviceBase : public QObject
{
    Q_OBJECT

public:
    enum KvDeviceError {
        NoError = 0,             ///< The last register access succeeded.
        InvalideDeviceError = 1, ///< Not a device of this class. Drop the object.
        NotConnectedError = 2,   ///< The link is not in the state that the operation needs.
        CommunicationError = 3,  ///< A read gave too few registers, or a write failed.
        InitilizationError = 4   ///< The device could not be set up. Drop the object.
    };
    Q_ENUM(KvDeviceError)

    /// The rate of the firmware of every gripper, in baud.
    static constexpr qint32 firmwareBaudRate = 115200;

    /// A search for a bootloader makes one attempt more than this.
    static constexpr unsigned int bootloaderRetries = 50;

    /// Uses the low 8 bits of `slaveId`. `modbus` must outlive the device.
    KvDeviceBase(KvModbusAbstract &modbus, quint16 slaveId, QObject *parent);
    ~KvDeviceBase() override;

    /// Whether this class can drive the device. Pumps events.
    virtual bool isValidDevice() = 0;

    quint8 getSlaveId() const { return m_slaveId; }

    /// Reads `count` holding registers, starting at `address`. Pumps events. Returns the master's
    /// result. If the result has too few registers, error() is CommunicationError.
    QVector<quint16> modbusReadRegisters(quint16 address, quint16 count);

    /// Writes holding registers, starting at `address`. Pumps events. Returns whether the device
    /// acknowledged the write. If not, error() is CommunicationError.
    bool modbusWriteRegisters(quint16 address, const QVector<quint16> &values);

    /// Each reads the device at its first call, which pumps events, and then keeps the value. If
    /// the read fails, returns an empty text or 0, and the next call reads again.
    QString getSerialNumber();
    QString getFirmwareVersion();
    quint16 getProductionYear();

    /// Programs the identity and reads it back several times. `prefix` is cut or NUL-padded to 4
    /// characters. Pumps events. Returns whether the device showed the new identity. If this object
    /// has read the old identity before, it keeps the old one, and the function returns false.
    bool setSerialNumberAndProductionYear(const QString &prefix, quint32 number, quint16 year);

    /// Restarts the device into a bootloader by a write to the reset register. Every call writes
    /// the `command` of the first call in this process. Pumps events. Returns whether the device
    /// acknowledged the write.
    /// Without `manual`: closes the link after a success, so that the port is free. Ignores
    /// `timeoutMs`.
    /// With `manual`, for a device that a user switches off and on: opens the link and repeats the
    /// write until the device acknowledges it, `timeoutMs` have passed or
    /// abortManualResetToBootLoader() is called. Closes the link at the end.
    bool resetDeviceToBootloader(quint16 command, bool manual, unsigned int timeoutMs);

    /// Ends a running manual reset, after at most one more write.
    void abortManualResetToBootLoader();

    /// Restarts the firmware. Pumps events. Returns whether the device acknowledged the command.
    bool resetDeviceToFirmware();

    /// Whether a bootloader answers the synchronisation byte at this rate in one of `retries` + 1
    /// attempts. Blocks the thread for at most 100 ms for each attempt, without pumping events. A
    /// quit signal ends the search early. If the link is open, returns false, and error() is
    /// NotConnectedError.
    bool detectBootloader(QSerialPort::BaudRate baudRate, unsigned int retries);

    /// Restart the device into ownBootloader or into romBootloader. Return whether the bootloader
    /// answers. Pump events, then block the thread like detectBootloader(). Ignore `timeoutMs`.
    bool jumpToTavrinBootloader(unsigned int timeoutMs);
    bool jumpToStBootloader(unsigned int timeoutMs);

    /// Flash addresses, written as arguments of a flashing program.
    static constexpr char __bootLoaderRestartAddress[] = "0x08000000";
    static constexpr char __bootLoaderFirmwareStartAddress[] = "0x08080000";

    KvDeviceError error() const { return m_error; }

    /// The name of error(), such as "CommunicationError". Empty if the value has no name.
    QString errorString() const;

    /// Stores `error` and emits errorOccurred(), also for NoError.
    void setError(KvDeviceError error);

    /// Stores NoError, here and in the master, without emitting anything.
    void clearError();

signals:
    void errorOccurred(KvDeviceBase::KvDeviceError error);

protected:
    KvModbusAbstract &modbus() const { return m_modbus; }
    void setSlaveId(quint8 slaveId) { m_slaveId = slaveId; }

    /// Whether `words` are the three registers of the firmware version that was read.
    bool isFirmwareVersion(const QVector<quint16> &words) const;

private:
    bool writeIdentity(const QString &prefix, quint32 number, quint16 year);
    bool identityReadsBack(const QString &serialNumber, quint16 year);
    bool repeatResetUntilAcknowledged(quint16 command);

    QTimer m_manualResetTimer;
    quint8 m_slaveId;
    KvModbusAbstract &m_modbus;
    QString m_serialNumber;
    quint16 m_productionYear = 0;
    QString m_firmwareVersion;
    KvDeviceError m_error = NoError;
};
