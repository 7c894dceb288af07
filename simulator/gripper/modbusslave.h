#pragma once

#include "modbuscodes.h"

#include <QByteArray>

namespace sim {

class RegisterBank;

/// Executes Modbus requests on a register bank. Requests include their CRC, answers do not.
class ModbusSlave
{
public:
    /// `registers` must outlive the slave.
    explicit ModbusSlave(RegisterBank &registers);

    /// Executes `request` and returns the answer, which may be an exception answer.
    QByteArray answer(const QByteArray &request);

    /// Makes the exception answer to `request` with the exception `code`.
    static QByteArray exceptionAnswer(const QByteArray &request, int code);

private:
    QByteArray answerRead(const QByteArray &request);
    QByteArray answerWrite(const QByteArray &request);

    RegisterBank &m_registers;
};

} // namespace sim
