#include "modbusslave.h"

#include "registerbank.h"

namespace sim {

namespace {
// Offsets in a request.
constexpr int functionOffset = 1;
constexpr int addressOffset = 2;
constexpr int countOffset = 4;
constexpr int byteCountOffset = 6;
constexpr int dataOffset = 7;
constexpr int crcLength = 2;
constexpr int readRequestLength = 8;
// The numbers of registers that fit into one frame.
constexpr int maxReadCount = 125;
constexpr int maxWriteCount = 123;

QByteArray refuse(const QByteArray &request, ModbusException code)
{
    return ModbusSlave::exceptionAnswer(request, static_cast<int>(code));
}

QVector<quint16> dataOf(const QByteArray &request, int count)
{
    QVector<quint16> values;
    for (int i = 0; i < count; ++i)
        values.append(wordAt(request, dataOffset + 2 * i));
    return values;
}

bool isWholeWrite(const QByteArray &request, int count)
{
    return request.size() == dataOffset + 2 * count + crcLength &&
           static_cast<quint8>(request.at(byteCountOffset)) == 2 * count;
}
} // namespace

ModbusSlave::ModbusSlave(RegisterBank &registers)
    : m_registers(registers)
{
}

QByteArray ModbusSlave::answer(const QByteArray &request)
{
    switch (static_cast<quint8>(request.at(functionOffset))) {
    case readHoldingRegisters:
        return answerRead(request);
    case writeMultipleRegisters:
        return answerWrite(request);
    default:
        return refuse(request, ModbusException::IllegalFunction);
    }
}

QByteArray ModbusSlave::exceptionAnswer(const QByteArray &request, int code)
{
    QByteArray answer = request.left(functionOffset + 1);
    answer[functionOffset] = static_cast<char>(answer.at(functionOffset) | exceptionFlag);
    answer.append(static_cast<char>(code));
    return answer;
}

QByteArray ModbusSlave::answerRead(const QByteArray &request)
{
    if (request.size() != readRequestLength)
        return refuse(request, ModbusException::IllegalValue);
    const quint16 first = wordAt(request, addressOffset);
    const int count = wordAt(request, countOffset);
    if (count < 1 || count > maxReadCount)
        return refuse(request, ModbusException::IllegalValue);
    if (!m_registers.exists(first, count))
        return refuse(request, ModbusException::IllegalAddress);
    QByteArray answer = request.left(functionOffset + 1);
    answer.append(static_cast<char>(2 * count));
    const QVector<quint16> values = m_registers.read(first, count);
    for (const quint16 value : values)
        appendWord(&answer, value);
    return answer;
}

QByteArray ModbusSlave::answerWrite(const QByteArray &request)
{
    if (request.size() < dataOffset + crcLength)
        return refuse(request, ModbusException::IllegalValue);
    const int count = wordAt(request, countOffset);
    if (count < 1 || count > maxWriteCount || !isWholeWrite(request, count))
        return refuse(request, ModbusException::IllegalValue);
    const ModbusException code =
        m_registers.write(wordAt(request, addressOffset), dataOf(request, count));
    if (code != ModbusException::None)
        return refuse(request, code);
    return request.left(byteCountOffset);
}

} // namespace sim
