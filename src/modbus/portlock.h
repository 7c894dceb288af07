#pragma once

#include <QString>

/// Removes the lock file of a serial port if the file names this process and no process holds the
/// lock. In a container, a killed predecessor may have had the same process id. QSerialPort then
/// treats that lock as valid and refuses the port until the file is 30 s old.
/// `portName` is the result of QSerialPort::portName().
void removeStaleLockOfOwnProcess(const QString &portName);
