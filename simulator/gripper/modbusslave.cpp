#include "modbusslave.h"

#include "registerbank.h"

namespace sim {

namespace {
// Offsets in a request.
constexpr int kFunctionOffset = 1;
constexpr int kAddressOffset = 2;
constexpr int kCountOffset = 4;
constexpr int kByteCountOffset = 6;
constexpr int kDataOffset = 7;
constexpr int kCrcLength = 2;
constexpr int kReadLength = 8;
// What one frame can carry.
constexpr int kMaxReadCount = 125;
constexpr int kMaxWriteCount = 123;

QByteArray refuse(const QByteArray &request, ModbusException code)
{
    return ModbusSlave::exceptionAnswer(request, static_cast<int>(code));
}

QVector<quint16> dataOf(const QByteArray &request, int count)
{
    QVector<quint16> values;
    for (int i = 0; i < count; ++i)
        values.append(wordAt(request, kDataOffset + 2 * i));
    return values;
}

bool isWholeWrite(const QByteArray &request, int count)
{
    return request.size() == kDataOffset + 2 * count + kCrcLength &&
           static_cast<quint8>(request.at(kByteCountOffset)) == 2 * count;
}
} // namespace

ModbusSlave::ModbusSlave(RegisterBank &registers)
    : m_registers(registers)
{
}

QByteArray ModbusSlave::answer(const QByteArray &request)
{
    switch (static_cast<quint8>(request.at(kFunctionOffset))) {
    case kReadHoldingRegisters:
        return answerRead(request);
    case kWriteMultipleRegisters:
        return answerWrite(request);
    default:
        return refuse(request, ModbusException::IllegalFunction);
    }
}

QByteArray ModbusSlave::exceptionAnswer(const QByteArray &request, int code)
{
    QByteArray answer = request.left(kFunctionOffset + 1);
    answer[kFunctionOffset] = static_cast<char>(answer.at(kFunctionOffset) | kExceptionFlag);
    answer.append(static_cast<char>(code));
    return answer;
}

QByteArray ModbusSlave::answerRead(const QByteArray &request)
{
    if (request.size() != kReadLength)
        return refuse(request, ModbusException::IllegalValue);
    const quint16 first = wordAt(request, kAddressOffset);
    const int count = wordAt(request, kCountOffset);
    if (count < 1 || count > kMaxReadCount)
        return refuse(request, ModbusException::IllegalValue);
    if (!m_registers.exists(first, count))
        return refuse(request, ModbusException::IllegalAddress);
    QByteArray answer = request.left(kFunctionOffset + 1);
    answer.append(static_cast<char>(2 * count));
    const QVector<quint16> values = m_registers.read(first, count);
    for (const quint16 value : values)
        appendWord(&answer, value);
    return answer;
}

QByteArray ModbusSlave::answerWrite(const QByteArray &request)
{
    if (request.size() < kDataOffset + kCrcLength)
        return refuse(request, ModbusException::IllegalValue);
    const int count = wordAt(request, kCountOffset);
    if (count < 1 || count > kMaxWriteCount || !isWholeWrite(request, count))
        return refuse(request, ModbusException::IllegalValue);
    const ModbusException code =
        m_registers.write(wordAt(request, kAddressOffset), dataOf(request, count));
    if (code != ModbusException::None)
        return refuse(request, code);
    return request.left(kByteCountOffset);
}

} // namespace sim
