#include "modbusconstraintsfactory.h"

namespace {

constexpr int ordinaryTimeoutMs = 32;
constexpr int wristCameraTimeoutMs = 200;
constexpr int timeoutFactorMs = 10;
constexpr int retries = 2;

} // namespace

ModbusConstraints ModbusConstraintsFactory::getModbusConstraints(const QString &portName) const
{
    // The tool flange is a separate case, although it has the default timing.
    if (isG5ToolFlangeSerialConverter(portName))
        return {ordinaryTimeoutMs, timeoutFactorMs, retries};
    if (isTavrinWristCameraSerialConverter(portName))
        return {wristCameraTimeoutMs, timeoutFactorMs, retries};
    return {ordinaryTimeoutMs, timeoutFactorMs, retries};
}

bool ModbusConstraintsFactory::isG5ToolFlangeSerialConverter(const QString &portName) const
{
    return portName == QLatin1String("ttyTool");
}

bool ModbusConstraintsFactory::isTavrinWristCameraSerialConverter(const QString &portName) const
{
    return portName.startsWith(QLatin1String("ttyACM"));
}
