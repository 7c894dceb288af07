#include "modbusconstraints.h"

ModbusConstraints::ModbusConstraints(int timeout, int timeoutFactor, int retries)
    : m_timeout(timeout)
    , m_timeoutFactor(timeoutFactor)
    , m_retries(retries)
{
}
