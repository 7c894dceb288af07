#pragma once

#include "modbusconstraints.h"

#include <QString>

/// Chooses the timing of a link by the bare name of its port ("ttyUSB0", not a path). A full path
/// matches no special port and gets the default timing.
class ModbusConstraintsFactory
{
public:
    ModbusConstraints getModbusConstraints(const QString &portName) const;

    /// The port at the robot's tool flange, "ttyTool".
    bool isG5ToolFlangeSerialConverter(const QString &portName) const;

    /// A USB modem-class device: any name that starts with "ttyACM".
    bool isTavrinWristCameraSerialConverter(const QString &portName) const;
};
