#pragma once

#include <QString>

/// Removes the lock file of a serial port when it names this process although no process holds it.
/// In a container, a predecessor that was killed had the same process id: QSerialPort sees that
/// this process runs, and refuses the port until the file is 30 s old.
/// `portName` as QSerialPort::portName() gives it, so that the file is QSerialPort's own.
void removeStaleLockOfOwnProcess(const QString &portName);
