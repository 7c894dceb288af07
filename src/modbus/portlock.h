#pragma once

#include <QString>

/// Removes the lock file of a serial port if the file names this process and no process holds it.
/// In a container, a predecessor that was killed may have had the same process id. QSerialPort then
/// finds the owner of the file alive and refuses the port until the file is 30 s old.
/// `portName` is the result of QSerialPort::portName().
void removeStaleLockOfOwnProcess(const QString &portName);
