#pragma once

#include "modbusconstraints.h"

#include <QString>

/// Chooses the timing budget of a link from the bare name of its port ("ttyUSB0", not a path).
/// A full path matches no special port and gets the default.
class ModbusConstraintsFactory
{
public:
    ModbusConstraints getModbusConstraints(const QString &portName) const;

    /// The robot's tool-flange port: exactly "ttyTool".
    bool isG5ToolFlangeSerialConverter(const QString &portName) const;

    /// A converter behind a USB modem-class device: any name that starts with "ttyACM".
    bool isTavrinWristCameraSerialConverter(const QString &portName) const;
};
