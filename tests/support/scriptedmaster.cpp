#include "scriptedmaster.h"

void ScriptedMaster::setRegisters(quint8 slaveId, quint16 address, const Words &words)
{
    m_registers.insert({slaveId, address}, words);
}

void ScriptedMaster::addGripper(quint8 slaveId, quint16 productCode)
{
    setRegisters(slaveId, 500, {productCode, 0x3301, 0x060E});
    setRegisters(slaveId, 510, {0x4142, 0x4300, 42, 0});
    setRegisters(slaveId, 514, {2024});
    for (const quint16 counter : {quint16{600}, quint16{602}, quint16{604}})
        setRegisters(slaveId, counter, {0, 0});
    setRegisters(slaveId, 2000, {0, 0, 0});
}

void ScriptedMaster::setNextAnswers(quint8 slaveId, quint16 address, const QList<Words> &answers)
{
    m_nextAnswers.insert({slaveId, address}, answers);
}

void ScriptedMaster::refuseWrites(quint16 address, KvModbusError error)
{
    m_refusedWrites.insert(address, error);
}

QStringList ScriptedMaster::takeRequests()
{
    QStringList requests = m_requests;
    m_requests.clear();
    return requests;
}

bool ScriptedMaster::connectToDevice()
{
    record(QStringLiteral("connect"));
    m_open = m_open || m_openable;
    return m_open;
}

void ScriptedMaster::disconnectFromDevice()
{
    record(QStringLiteral("disconnect"));
    m_open = false;
}

QVector<quint16> ScriptedMaster::readRegisters(quint8 slaveId, quint16 startAddress, quint16 count)
{
    record(QStringLiteral("read %1 %2 %3").arg(slaveId).arg(startAddress).arg(count));
    if (!m_open) {
        setError(NotConnectedError);
        return {};
    }
    const Words words = answerTo({slaveId, startAddress});
    setError(words.isEmpty() ? TimeoutError : NoError);
    return words;
}

bool ScriptedMaster::writeRegisters(quint8 slaveId, quint16 startAddress,
                                    const QVector<quint16> &values)
{
    QString request = QStringLiteral("write %1 %2:").arg(slaveId).arg(startAddress);
    for (const quint16 value : values)
        request += QStringLiteral(" 0x%1").arg(value, 4, 16, QLatin1Char('0'));
    record(request);
    setError(m_open ? m_refusedWrites.value(startAddress, NoError) : NotConnectedError);
    return error() == NoError;
}

void ScriptedMaster::setBaudRate(qint32 baudRate)
{
    record(QStringLiteral("baud %1").arg(baudRate));
}

void ScriptedMaster::record(const QString &request)
{
    m_requests.append(request);
    if (m_onRequest)
        m_onRequest();
}

ScriptedMaster::Words ScriptedMaster::answerTo(const Register &first)
{
    QList<Words> &next = m_nextAnswers[first];
    return next.isEmpty() ? m_registers.value(first) : next.takeFirst();
}
