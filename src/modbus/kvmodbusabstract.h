#pragma once

#include "modbusconstraints.h"

#include <QModbusDevice>
#include <QObject>
#include <QString>
#include <QVector>

/// The one interface through which a device talks to its bus. Requests report by their result and
/// by error(), which every request overwrites: read it right after the request, before events are
/// processed again. Nothing is thrown.
class KvModbusAbstract : public QObject
{
    Q_OBJECT

public:
    enum KvModbusError {
        NoError = 0,      ///< The last request succeeded.
        TimeoutError = 1, ///< Not written in time, or no complete answer with the right header.
        BadCrcError = 2,  ///< A complete answer came, its checksum is wrong.
        NotConnectedError = 3, ///< The link is not open; nothing was sent. Reconnect first.
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

    /// Reads `count` holding registers of `slaveId` from `startAddress` on. Pumps events while it
    /// waits, at most timeout + timeoutFactor * count milliseconds. Empty on any failure.
    virtual QVector<quint16> readRegisters(quint8 slaveId, quint16 startAddress, quint16 count) = 0;

    /// Writes `values` to the holding registers of `slaveId` from `startAddress` on. Pumps events
    /// while it waits, as readRegisters(). Returns whether the slave acknowledged the write.
    virtual bool writeRegisters(quint8 slaveId, quint16 startAddress,
                                const QVector<quint16> &values) = 0;

    /// Sets the rate in baud, for both directions, at once if the link is open.
    virtual void setBaudRate(qint32 baudRate) = 0;

    KvModbusError error() const { return m_error; }

    /// The key name of error(), such as "TimeoutError"; empty for a value that is no key.
    QString errorString() const;

    /// Stores NoError without emitting anything.
    void clearError();

    /// Whether another whole answer, unlike the one that counts, came with the latest one. The one
    /// that counts may then be a late or doubled answer to an earlier request. Only meaningful
    /// right after a request that succeeded.
    bool isAnswerAmbiguous() const { return m_isAnswerAmbiguous; }

    /// Replaces the timing budget; it applies from the next request on.
    void setConstraints(const ModbusConstraints &constraints);

signals:
    /// After every request, success included.
    void errorOccurred(KvModbusAbstract::KvModbusError error);
    void connected();
    void disconnected();

protected:
    /// Stores `error` and emits errorOccurred(), whatever the value.
    void setError(KvModbusError error);

    void setAnswerAmbiguous(bool isAmbiguous) { m_isAnswerAmbiguous = isAmbiguous; }

    const ModbusConstraints &constraints() const { return m_constraints; }

private slots:
    /// For a master that is built on a framework Modbus device: forwards its state changes.
    void onModbusStateChanged(QModbusDevice::State state);

private:
    ModbusConstraints m_constraints;
    KvModbusError m_error = NoError;
    bool m_isAnswerAmbiguous = false;
};
