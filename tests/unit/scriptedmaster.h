#pragma once

#include "kvmodbusabstract.h"

#include <QList>
#include <QMap>
#include <QStringList>

#include <functional>

/// A master without a line: its slaves' registers are set beforehand, and every request is
/// recorded as text. A read is answered with what was set for exactly its slave and start address,
/// whatever its count; without that it ends in a time-out. A write is acknowledged unless it was
/// told to fail. Pumps no events.
class ScriptedMaster : public KvModbusAbstract
{
    Q_OBJECT

public:
    using Words = QVector<quint16>;

    explicit ScriptedMaster(const QString &portName = QStringLiteral("scripted"))
        : m_portName(portName)
    {
    }

    /// What every read of this address is answered with.
    void setRegisters(quint8 slaveId, quint16 address, const Words &words);

    /// Answers that come before the standing one, one for each read. An empty one is a time-out.
    void setNextAnswers(quint8 slaveId, quint16 address, const QList<Words> &answers);

    /// Every write to this address fails with `error` from now on.
    void refuseWrites(quint16 address, KvModbusError error);
    void acknowledgeWrites(quint16 address) { m_refusedWrites.remove(address); }

    /// Whether the link is open, and whether it can be opened.
    void setOpen(bool open) { m_open = open; }
    void setOpenable(bool openable) { m_openable = openable; }

    /// Whether another answer comes with each one.
    using KvModbusAbstract::setAnswerAmbiguous;

    /// Called at the start of every request.
    void setOnRequest(const std::function<void()> &onRequest) { m_onRequest = onRequest; }

    /// "connect", "disconnect", "baud 115200", "read SLAVE ADDRESS COUNT" or
    /// "write SLAVE ADDRESS: 0x1234 0x5678", in order. Taking them empties the record.
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
