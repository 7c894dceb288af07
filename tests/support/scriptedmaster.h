#pragma once

#include "kvmodbusabstract.h"

#include <QList>
#include <QMap>
#include <QStringList>

#include <functional>

/// A master without a line. It records every request as text. A read returns the words that the
/// test has set for its slave and start address, whatever its count, or ends in a time-out. A write
/// succeeds unless the test refuses it. Pumps no events.
class ScriptedMaster : public KvModbusAbstract
{
    Q_OBJECT

public:
    using Words = QVector<quint16>;

    explicit ScriptedMaster(const QString &portName = QStringLiteral("scripted"))
        : m_portName(portName)
    {
    }

    /// Sets the answer to every read of this address.
    void setRegisters(quint8 slaveId, quint16 address, const Words &words);

    /// Sets the registers of a gripper that is switched on and has not moved yet: version
    /// TA3-1.6.14, serial number ABC-0042, year 2024. `productCode` replaces the letters "TA".
    void addGripper(quint8 slaveId, quint16 productCode = 0x5441);

    /// Sets answers for the next reads, before the permanent answer. An empty one is a time-out.
    void setNextAnswers(quint8 slaveId, quint16 address, const QList<Words> &answers);

    /// Every write to this address fails with `error` from now on.
    void refuseWrites(quint16 address, KvModbusError error);
    void acknowledgeWrites(quint16 address) { m_refusedWrites.remove(address); }

    /// Whether the link is open, and whether it can be opened.
    void setOpen(bool open) { m_open = open; }
    void setOpenable(bool openable) { m_openable = openable; }

    /// Sets whether a second answer arrives with each answer.
    using KvModbusAbstract::setAnswerAmbiguous;

    /// Sets a function that runs at the start of every request.
    void setOnRequest(const std::function<void()> &onRequest) { m_onRequest = onRequest; }

    /// "connect", "disconnect", "baud 115200", "read SLAVE ADDRESS COUNT" or
    /// "write SLAVE ADDRESS: 0x1234 0x5678", in order. Clears the record.
    QStringList takeRequests();

    bool connectToDevice() override;
    void disconnectFromDevice() override;
    bool isConnected() override { return m_open; }
    QString getPortName() const override { return m_portName; }
    QVector<quint16> readRegisters(quint8 slaveId, quint16 startAddress, quint16 count) override;
    bool writeRegisters(quint8 slaveId, quint16 startAddress,
                        const QVector<quint16> &values) override;
    void setBaudRate(qint32 baudRate) override;

private:
    using Register = QPair<quint8, quint16>;

    void record(const QString &request);
    Words answerTo(const Register &first);

    QString m_portName;
    bool m_open = true;
    bool m_openable = true;
    QMap<Register, Words> m_registers;
    QMap<Register, QList<Words>> m_nextAnswers;
    QMap<quint16, KvModbusError> m_refusedWrites;
    QStringList m_requests;
    std::function<void()> m_onRequest;
};
