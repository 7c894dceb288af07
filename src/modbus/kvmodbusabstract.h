#pragma once

#include "modbusconstraints.h"

#include <QModbusDevice>
#include <QObject>
#include <QString>
#include <QVector>

/// A Modbus master, the only way from a device to its bus. Requests report by their result and by
/// error(). Every request overwrites error(): read error() directly after the request, before the
/// event loop runs again.
class KvModbusAbstract : public QObject
{
    Q_OBJECT

public:
    enum KvModbusError {
        NoError = 0,      ///< The last request succeeded.
        TimeoutError = 1, ///< Not written in time, or no complete answer with the right header.
        BadCrcError = 2,  ///< The checksum of a complete answer is wrong.
        NotConnectedError = 3, ///< The link is closed, so nothing was sent. Reconnect first.
        InvalideError = 4,     ///< Reserved.
        InternalError = 5      ///< Reserved.
    };
    Q_ENUM(KvModbusError)

    explicit KvModbusAbstract(QObject *parent = nullptr);
    ~KvModbusAbstract() override;

    /// Opens the link unless it is open. Returns whether it is open afterwards.
    virtual bool connectToDevice() = 0;
    virtual void disconnectFromDevice() = 0;
    virtual bool isConnected() = 0;
    virtual QString getPortName() const = 0;

    /// Reads `count` holding registers of `slaveId`, starting at `startAddress`. Waits for the
    /// answer as long as the constraints allow, and pumps events meanwhile. Empty on failure.
    virtual QVector<quint16> readRegisters(quint8 slaveId, quint16 startAddress, quint16 count) = 0;

    /// Writes `values` to the holding registers of `slaveId`, starting at `startAddress`. Pumps
    /// events like readRegisters(). Returns whether the slave acknowledged the write.
    virtual bool writeRegisters(quint8 slaveId, quint16 startAddress,
                                const QVector<quint16> &values) = 0;

    /// Sets the rate of both directions, in baud. An open link changes at once.
    virtual void setBaudRate(qint32 baudRate) = 0;

    KvModbusError error() const { return m_error; }

    /// The name of error(), such as "TimeoutError". Empty if the value has no name.
    QString errorString() const;

    /// Stores NoError without emitting anything.
    void clearError();

    /// Whether a second, different answer followed the answer to the latest request. The first one
    /// may then be a late or doubled answer to an earlier request. Only meaningful directly after a
    /// request that succeeded.
    bool isAnswerAmbiguous() const { return m_isAnswerAmbiguous; }

    /// Sets the timing of the requests that follow.
    void setConstraints(const ModbusConstraints &constraints);

signals:
    /// Emitted after every request, also after a success.
    void errorOccurred(KvModbusAbstract::KvModbusError error);
    void connected();
    void disconnected();

protected:
    /// Stores `error` and emits errorOccurred(), also for NoError.
    void setError(KvModbusError error);

    void setAnswerAmbiguous(bool isAmbiguous) { m_isAnswerAmbiguous = isAmbiguous; }

    const ModbusConstraints &constraints() const { return m_constraints; }

private slots:
    /// For a master that owns a QModbusDevice: turns its states into connected() and
    /// disconnected().
    void onModbusStateChanged(QModbusDevice::State state);

private:
    ModbusConstraints m_constraints;
    KvModbusError m_error = NoError;
    bool m_isAnswerAmbiguous = false;
};
