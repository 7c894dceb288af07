#pragma once

#include "kvmodbusabstract.h"

#include <QObject>
#include <QSerialPort>
#include <QString>
#include <QTimer>
#include <QVector>

/// One Modbus slave on a master that it does not own and that outlives it: register access with an
/// error state of the device's own, and the identity data, read once and then kept.
/// Every register access pumps events while it waits; error() holds right after the call only.
class KvDeviceBase : public QObject
{
    Q_OBJECT

public:
    enum KvDeviceError {
        NoError = 0,             ///< The last register access succeeded.
        InvalideDeviceError = 1, ///< Not a device of this class; drop the object.
        NotConnectedError = 2,   ///< The link is not in the state that the operation needs.
        CommunicationError = 3,  ///< Fewer registers than asked for, or a write not acknowledged.
        InitilizationError = 4   ///< The device could not be set up; drop the object.
    };
    Q_ENUM(KvDeviceError)

    /// The rate of every firmware, in baud.
    static constexpr qint32 firmwareBaudRate = 115200;

    /// A search for a bootloader makes one attempt more than this.
    static constexpr unsigned int bootloaderRetries = 50;

    /// Of `slaveId` the low 8 bits are used. `modbus` must outlive the device.
    KvDeviceBase(KvModbusAbstract &modbus, quint16 slaveId, QObject *parent);
    ~KvDeviceBase() override;

    /// Whether the device is one that this class can drive. Pumps events.
    virtual bool isValidDevice() = 0;

    quint8 getSlaveId() const { return m_slaveId; }

    /// Reads `count` holding registers from `address` on. Pumps events. Returns what the master
    /// returns, empty on failure; error() is then CommunicationError.
    QVector<quint16> modbusReadRegisters(quint16 address, quint16 count);

    /// Writes holding registers from `address` on. Pumps events. Returns whether the device
    /// acknowledged; error() is CommunicationError otherwise.
    bool modbusWriteRegisters(quint16 address, const QVector<quint16> &values);

    /// Cached after the first successful read, which pumps events. Empty, or 0, while unknown; the
    /// next call then asks the device again.
    QString getSerialNumber();
    QString getFirmwareVersion();
    quint16 getProductionYear();

    /// Programs the identity and reads it back. `prefix` is cut or NUL-padded to 4 characters.
    /// Takes up to 50 read-backs, 50 ms apart, and pumps events. Returns whether the device showed
    /// the new identity; an object that had cached the old one never sees it.
    bool setSerialNumberAndProductionYear(const QString &prefix, quint32 number, quint16 year);

    /// Restarts the device into a bootloader: writes `command` to the reset register, but of all
    /// values that this process ever passes, the first one is written every time.
    /// Automatic: a success leaves the link closed, so that the port is free; `timeoutMs` is not
    /// used. Manual, for a device that is power-cycled by hand: opens the link and repeats the
    /// write every 100 ms until the device takes it, until `timeoutMs` have passed or until
    /// abortManualResetToBootLoader(); leaves the link closed. Pumps events.
    bool resetDeviceToBootloader(quint16 command, bool manual, unsigned int timeoutMs);

    /// Lets a manual reset that is under way give up at its next check.
    void abortManualResetToBootLoader();

    /// Restarts the firmware; the link stays as it is. Pumps events. Returns whether the device
    /// acknowledged.
    bool resetDeviceToFirmware();

    /// Whether a bootloader answers its synchronisation byte at that rate, in one of `retries` + 1
    /// attempts. Blocks the thread for up to 100 ms an attempt and pumps no events; a quit signal
    /// ends it early. The link must be closed, or else error() is NotConnectedError.
    bool detectBootloader(QSerialPort::BaudRate baudRate, unsigned int retries);

    /// Restarts the device into the driver's own bootloader (at 115200 baud) or into the ROM
    /// bootloader (at 19200 baud) and returns whether it was detected there. Pumps events, then
    /// blocks the thread for up to 5.1 s. `timeoutMs` is not used.
    bool jumpToTavrinBootloader(unsigned int timeoutMs);
    bool jumpToStBootloader(unsigned int timeoutMs);

    /// Flash addresses, as tools take them.
    static constexpr char __bootLoaderRestartAddress[] = "0x08000000";
    static constexpr char __bootLoaderFirmwareStartAddress[] = "0x08080000";

    KvDeviceError error() const { return m_error; }

    /// The key name of error(), such as "CommunicationError"; empty for a value that is no key.
    QString errorString() const;

    /// Stores `error` and emits errorOccurred(), whatever the value.
    void setError(KvDeviceError error);

    /// Stores NoError, here and on the master, without a signal.
    void clearError();

signals:
    void errorOccurred(KvDeviceBase::KvDeviceError error);

protected:
    KvModbusAbstract &modbus() const { return m_modbus; }
    void setSlaveId(quint8 slaveId) { m_slaveId = slaveId; }

    /// Whether `words` are the three registers that the cached firmware version was made of.
    bool isFirmwareVersion(const QVector<quint16> &words) const;

private:
    bool writeIdentity(const QString &prefix, quint32 number, quint16 year);
    bool identityReadsBack(const QString &serialNumber, quint16 year);
    bool knockUntilReset(quint16 command);

    QTimer m_manualResetTimer;
    quint8 m_slaveId;
    KvModbusAbstract &m_modbus;
    QString m_serialNumber;
    quint16 m_productionYear = 0;
    QString m_firmwareVersion;
    KvDeviceError m_error = NoError;
};
