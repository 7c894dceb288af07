#pragma once

#include "modbuscodes.h"

#include <QByteArray>

namespace sim {

class RegisterBank;

/// The Modbus side of the firmware: carries requests out on a register bank. Frames come with
/// their CRC; answers leave without.
class ModbusSlave
{
public:
    /// `registers` must outlive the slave.
    explicit ModbusSlave(RegisterBank &registers);

    /// Carries `request` out and gives the answer, an exception answer included.
    QByteArray answer(const QByteArray &request);

    /// The exception answer `code` to `request`.
    static QByteArray exceptionAnswer(const QByteArray &request, int code);

private:
    QByteArray answerRead(const QByteArray &request);
    QByteArray answerWrite(const QByteArray &request);

    RegisterBank &m_registers;
};

} // namespace sim
