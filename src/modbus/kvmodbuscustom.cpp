#include "kvmodbuscustom.h"

#include "portusage.h"
#include "quitsignals.h"
#include "waits.h"

#include <QScopeGuard>
#include <QSerialPortInfo>

namespace {

constexpr char readHoldingRegisters = 0x03;
constexpr char writeMultipleRegisters = 0x10;

// slave id, function code, byte count, CRC
constexpr int readAnswerOverhead = 5;
// slave id, function code, start address, register count, CRC
constexpr int writeAnswerLength = 8;
constexpr int readAnswerDataOffset = 3;

constexpr quint16 crcPolynomial = 0xA001;

void appendBigEndian(QByteArray &bytes, quint16 value)
{
    bytes.append(static_cast<char>(value >> 8));
    bytes.append(static_cast<char>(value & 0xFF));
}

quint16 bigEndianAt(const QByteArray &bytes, int offset)
{
    return static_cast<quint16>(static_cast<quint8>(bytes[offset]) << 8 |
                                static_cast<quint8>(bytes[offset + 1]));
}

QByteArray requestHeader(quint8 slaveId, char function, quint16 startAddress, quint16 count)
{
    QByteArray request;
    request.append(static_cast<char>(slaveId));
    request.append(function);
    appendBigEndian(request, startAddress);
    appendBigEndian(request, count);
    return request;
}

} // namespace

KvModbusCustom::KvModbusCustom(QObject *parent)
    : KvModbusAbstract(parent)
{
    connect(&m_line, &SerialLine::errorOccurred, this, &KvModbusCustom::onSerialPortErrorOccurred);
    connect(&m_line, &SerialLine::received, this, &KvModbusCustom::onReceived);
}

KvModbusCustom::KvModbusCustom(const QString &portName, QObject *parent)
    : KvModbusCustom(parent)
{
    setPortName(portName);
}

bool KvModbusCustom::connectToDevice()
{
    return m_line.open();
}

void KvModbusCustom::disconnectFromDevice()
{
    m_line.close();
}

bool KvModbusCustom::isConnected()
{
    return m_line.isOpen();
}

QString KvModbusCustom::getPortName() const
{
    return m_line.portName();
}

void KvModbusCustom::setPortName(const QString &portName)
{
    m_line.setPortName(portName);
}

void KvModbusCustom::setBaudRate(qint32 baudRate)
{
    m_line.setBaudRate(baudRate);
}

int KvModbusCustom::getBaudrate() const
{
    return m_line.baudRate();
}

QVector<quint16> KvModbusCustom::readRegisters(quint8 slaveId, quint16 startAddress, quint16 count)
{
    QByteArray request = requestHeader(slaveId, readHoldingRegisters, startAddress, count);
    addCRC(request);

    QByteArray answer;
    const KvModbusError outcome = exchange(request, count, 2 * count + readAnswerOverhead, answer);
    QVector<quint16> values;
    if (outcome == NoError) {
        values.reserve(count);
        for (int i = 0; i < count; ++i)
            values.append(bigEndianAt(answer, readAnswerDataOffset + 2 * i));
    }
    setError(outcome);
    return values;
}

bool KvModbusCustom::writeRegisters(quint8 slaveId, quint16 startAddress,
                                    const QVector<quint16> &values)
{
    const auto count = static_cast<quint16>(values.size());
    QByteArray request = requestHeader(slaveId, writeMultipleRegisters, startAddress, count);
    // The frame has one byte for the byte count. If the count is larger, this is its low byte.
    request.append(static_cast<char>(2 * count & 0xFF));
    for (const quint16 value : values)
        appendBigEndian(request, value);
    addCRC(request);

    QByteArray answer;
    const KvModbusError outcome = exchange(request, count, writeAnswerLength, answer);
    setError(outcome);
    return outcome == NoError;
}

/// Sends `request` and waits for its answer. The answer must begin with the slave id and the
/// function of the request and have a valid CRC. Does not check the other fields.
KvModbusAbstract::KvModbusError KvModbusCustom::exchange(const QByteArray &request,
                                                         int registerCount, int answerLength,
                                                         QByteArray &answer)
{
    if (!isConnected())
        return NotConnectedError;
    waitUntilQuiet();
    // The wait ends before the answer or its deadline only if the application quits.
    if (isAnswerAwaited())
        return TimeoutError;
    // A client or a serial error may have closed the port meanwhile.
    if (!isConnected())
        return NotConnectedError;

    Exchange exchange{answerLength,
                      constraints().getTimeout() +
                          static_cast<qint64>(constraints().getTimeoutFactor()) * registerCount,
                      {},
                      {},
                      false};
    exchange.clock.start();
    m_latestExchange = &exchange;
    const auto endExchange = qScopeGuard([&] {
        if (m_latestExchange == &exchange)
            m_latestExchange = nullptr;
    });
    // send() drops earlier input, so a late answer to an earlier request does not count. It also
    // drops earlier output, so no part of a request that was reported as failed is sent now.
    if (!m_line.send(request, writeWaitMs))
        return TimeoutError;

    waitUntilQuiet();
    answer = exchange.input;
    if (answer.size() < answerLength || !answer.startsWith(request.left(2)))
        return TimeoutError;
    const QByteArray next = answer.mid(answerLength, answerLength);
    answer.truncate(answerLength);
    setAnswerAmbiguous(next.size() == answerLength && next != answer);
    return verifyCRC(answer) ? NoError : BadCrcError;
}

/// A request that begins inside the pause ends before the pause does. After the pause,
/// m_latestExchange is therefore the same exchange as before, or null.
void KvModbusCustom::waitUntilQuiet()
{
    while (isAnswerAwaited() && !quitRequested()) {
        if (m_latestExchange->clock.hasExpired(m_latestExchange->deadlineMs))
            m_latestExchange->isOver = true;
        else
            qSleepWhileProcessingEvents(pollingStepMs);
    }
}

bool KvModbusCustom::isAnswerAwaited() const
{
    return m_latestExchange != nullptr && !m_latestExchange->isOver;
}

/// Keeps the answer, because the port may close before a suspended request resumes. Also keeps the
/// input after the answer, because a second answer makes the first one doubtful.
void KvModbusCustom::onReceived(const QByteArray &input)
{
    if (m_latestExchange == nullptr)
        return;
    m_latestExchange->input +=
        input.left(2 * m_latestExchange->answerLength - m_latestExchange->input.size());
    if (m_latestExchange->input.size() >= m_latestExchange->answerLength)
        m_latestExchange->isOver = true;
}

quint16 KvModbusCustom::computeCRC(const QByteArray &bytes)
{
    quint16 crc = 0xFFFF;
    for (const char byte : bytes) {
        crc = static_cast<quint16>(crc ^ static_cast<quint8>(byte));
        for (int bit = 0; bit < 8; ++bit) {
            const bool carry = (crc & 1) != 0;
            crc = static_cast<quint16>(crc >> 1);
            if (carry)
                crc = static_cast<quint16>(crc ^ crcPolynomial);
        }
    }
    return crc;
}

void KvModbusCustom::addCRC(QByteArray &bytes)
{
    const quint16 crc = computeCRC(bytes);
    bytes.append(static_cast<char>(crc & 0xFF));
    bytes.append(static_cast<char>(crc >> 8));
}

bool KvModbusCustom::verifyCRC(const QByteArray &frame)
{
    QByteArray expected = frame.left(frame.size() - 2);
    addCRC(expected);
    return frame == expected;
}

void KvModbusCustom::onSerialPortErrorOccurred(QSerialPort::SerialPortError error)
{
    if (error != QSerialPort::NoError && error != QSerialPort::TimeoutError)
        m_line.close();
}

QVector<QString> KvModbusCustom::getAvailablePorts()
{
    QVector<QString> ports;
    const auto present = QSerialPortInfo::availablePorts();
    for (const QSerialPortInfo &port : present) {
        if (isUsbSerialPortName(port.portName()) && isPortFree(port.portName()))
            ports.append(port.systemLocation());
    }
    return ports;
}
